use std::fmt;
use std::iter::Peekable;
use std::str::Chars;

/// The largest literal the parser accepts.
pub const MAX_LITERAL: i64 = 1_000_000;

/// An arithmetic expression.
#[derive(Debug, PartialEq)]
pub enum Expr {
    Num(i64),
    Add(Box<Expr>, Box<Expr>),
}

/// A parse failure with its position.
#[derive(Debug)]
pub struct ParseError {
    pub position: usize,
    message: String,
}

/// Something that has a numeric value.
pub trait Value {
    /// The value of `self`.
    fn value(&self) -> i64;
}

impl Value for Expr {
    fn value(&self) -> i64 {
        match self {
            Expr::Num(n) => *n,
            Expr::Add(a, b) => a.value() + b.value(),
        }
    }
}

impl fmt::Display for ParseError {
    fn fmt(&self, f: &mut fmt::Formatter<'_>) -> fmt::Result {
        write!(f, "{} at {}", self.message, self.position)
    }
}

impl ParseError {
    fn new(position: usize, message: &str) -> Self {
        ParseError { position, message: message.to_string() }
    }
}

/// Parses `a + b + ...` of decimal literals.
pub fn parse(source: &str) -> Result<Expr, ParseError> {
    let mut chars = source.chars().peekable();
    let mut expr = number(&mut chars, 0)?;
    while let Some(c) = chars.next() {
        if c != '+' {
            return Err(ParseError::new(0, "expected +"));
        }
        let rhs = number(&mut chars, 0)?;
        expr = Expr::Add(Box::new(expr), Box::new(rhs));
    }
    Ok(expr)
}

// Reads one decimal literal.
fn number(chars: &mut Peekable<Chars<'_>>, position: usize) -> Result<Expr, ParseError> {
    let mut n: i64 = 0;
    while let Some(d) = chars.peek().and_then(|c| c.to_digit(10)) {
        n = n * 10 + d as i64;
        chars.next();
    }
    if n > MAX_LITERAL {
        return Err(ParseError::new(position, "literal too large"));
    }
    Ok(Expr::Num(n))
}

mod checks {
    pub fn is_small(n: i64) -> bool {
        n < 10
    }
}
