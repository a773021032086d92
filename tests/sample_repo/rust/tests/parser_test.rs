use calc::parser::Value;
use calc::{eval, parse, Expr};

#[test]
fn parses_a_sum() {
    let expr = parse("1+2").unwrap();
    assert_eq!(expr.value(), 3);
}

#[test]
fn evaluates() {
    assert_eq!(eval("40+2").unwrap(), 42);
    assert!(matches!(parse("7"), Ok(Expr::Num(7))));
}
