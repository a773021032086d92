// Package geometry holds small 2-D helpers.
package geometry

import (
	"fmt"
	"math"
)

// Origin is the point (0, 0).
var Origin = Point{}

const epsilon = 1e-9

// Point is a location on the plane.
type Point struct {
	X, Y float64
	label string
}

// Shape is anything with an area.
type Shape interface {
	Area() float64
}

// Dist returns the Euclidean distance between p and q.
func (p Point) Dist(q Point) float64 {
	return math.Hypot(q.X-p.X, q.Y-p.Y)
}

// Scale multiplies both coordinates by k in place.
func (p *Point) Scale(k float64) {
	p.X *= k
	p.Y *= k
}

func (p Point) String() string {
	return fmt.Sprintf("(%g, %g)", p.X, p.Y)
}

// NewPoint makes a labelled point.
func NewPoint(x, y float64) Point {
	return Point{X: x, Y: y, label: format(x, y)}
}

func format(x, y float64) string {
	return fmt.Sprint(x, ",", y)
}

func almostEqual(a, b float64) bool {
	return math.Abs(a-b) < epsilon
}
