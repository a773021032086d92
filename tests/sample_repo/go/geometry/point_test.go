package geometry

import "testing"

func TestDist(t *testing.T) {
	p := NewPoint(0, 0)
	q := NewPoint(3, 4)
	if d := p.Dist(q); !almostEqual(d, 5) {
		t.Fatalf("Dist = %v, want 5", d)
	}
}

func TestScale(t *testing.T) {
	p := NewPoint(1, 2)
	p.Scale(2)
	if p.X != 2 || p.Y != 4 {
		t.Errorf("Scale gave %v", p)
	}
}
