; JavaScript definitions and references, shared by JavaScript, TypeScript and TSX.
; See python.scm for the capture names. @export.name marks a name exported by an export
; clause (`export { a }`, `export default a`, `module.exports = { a }`).
; The indexer finds these captures (with those of typescript.scm, javascript_only.scm and
; jsx.scm) with a tree walk (language_javascript.cpp), which is faster than the query engine;
; a change here needs the same change there (the extraction tests compare them).

(function_declaration
  name: (identifier) @name) @definition.function

(generator_function_declaration
  name: (identifier) @name) @definition.function

(class_declaration
  name: (_) @name) @definition.class

; Methods; constructors are left out (the class stands for them).
(method_definition
  name: (_) @name
  (#not-eq? @name "constructor")) @definition.method

(variable_declarator
  name: (identifier) @name
  value: [(arrow_function) (function_expression) (generator_function)]) @definition.function

; `const Name = class { ... }`
(variable_declarator
  name: (identifier) @name
  value: (class)) @definition.class

; Module-level declarations: `const` gives constants, `let` and `var` variables.
(program
  (lexical_declaration
    "const"
    (variable_declarator
      name: (identifier) @name) @definition.constant))

(program
  (export_statement
    (lexical_declaration
      "const"
      (variable_declarator
        name: (identifier) @name) @definition.constant)))

(program
  (lexical_declaration
    "let"
    (variable_declarator
      name: (identifier) @name) @definition.variable))

(program
  (export_statement
    (lexical_declaration
      "let"
      (variable_declarator
        name: (identifier) @name) @definition.variable)))

(program
  (variable_declaration
    (variable_declarator
      name: (identifier) @name) @definition.variable))

(program
  (export_statement
    (variable_declaration
      (variable_declarator
        name: (identifier) @name) @definition.variable)))

; `obj.name = function () {}` and `Cls.prototype.name = () => {}` at statement level.
(expression_statement
  (assignment_expression
    left: (member_expression
      property: (property_identifier) @name)
    right: [(arrow_function) (function_expression)]) @definition.function)

(export_statement
  (export_clause
    (export_specifier
      name: (identifier) @export.name))
  !source)

(export_statement
  value: (identifier) @export.name)

(expression_statement
  (assignment_expression
    left: (member_expression
      object: (identifier) @_module
      property: (property_identifier) @_exports)
    right: (object
      [(shorthand_property_identifier) @export.name
       (pair value: (identifier) @export.name)]))
  (#eq? @_module "module")
  (#eq? @_exports "exports"))

(expression_statement
  (assignment_expression
    left: (member_expression
      object: (identifier) @_module
      property: (property_identifier) @_exports)
    right: (identifier) @export.name)
  (#eq? @_module "module")
  (#eq? @_exports "exports"))

; `require("x")` is an import, not a call.
(call_expression
  function: (identifier) @name
  (#not-eq? @name "require")) @reference.call

(call_expression
  function: (identifier) @_require
  arguments: (arguments . (string))
  (#eq? @_require "require")) @import

(call_expression
  function: (import)
  arguments: (arguments . (string))) @import

(call_expression
  function: (member_expression
    property: (property_identifier) @name) @callee) @reference.call

(new_expression
  constructor: (identifier) @name) @reference.call

(new_expression
  constructor: (member_expression
    property: (property_identifier) @name) @callee) @reference.call

(import_statement) @import

(export_statement
  source: (_)) @import

(comment) @comment
