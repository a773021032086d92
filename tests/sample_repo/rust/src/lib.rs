//! A tiny arithmetic expression parser.

pub mod parser;

pub use parser::{parse, Expr};

/// Evaluates an expression string.
pub fn eval(source: &str) -> Result<i64, parser::ParseError> {
    let expr = parse(source)?;
    Ok(expr.value())
}
