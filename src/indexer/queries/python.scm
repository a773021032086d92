; Python definitions, references and imports.
; Capture names: @definition.<kind> on the definition node with @name on its name;
; @reference.<usage> on the use with @name on the used identifier; @callee on the whole
; callee expression when the qualifier is what precedes @name in it; @import on import
; statements; @comment on comments (doc comments are found by position).
; The indexer finds these captures with a tree walk (language_python.cpp), which is faster than
; the query engine; a change here needs the same change there (the extraction tests compare them).

(class_definition
  name: (identifier) @name) @definition.class

(function_definition
  name: (identifier) @name) @definition.function

; Module-level assignments: constants when UPPER_CASE, variables otherwise.
(module
  (expression_statement
    (assignment
      left: (identifier) @name) @definition.variable))

; Class attributes declared in the class body.
(class_definition
  body: (block
    (expression_statement
      (assignment
        left: (identifier) @name) @definition.field)))

; Instance attributes assigned in __init__ belong to the class, not to __init__.
(function_definition
  name: (identifier) @_method
  parameters: (parameters . (identifier) @_self)
  body: (block
    (expression_statement
      (assignment
        left: (attribute
          object: (identifier) @_object
          attribute: (identifier) @name)) @definition.field.hoisted))
  (#eq? @_method "__init__")
  (#eq? @_self @_object))

(call
  function: (identifier) @name) @reference.call

(call
  function: (attribute
    attribute: (identifier) @name) @callee) @reference.call

(decorator
  (identifier) @name) @reference.call

(decorator
  (attribute
    attribute: (identifier) @name) @callee) @reference.call

(class_definition
  superclasses: (argument_list
    (identifier) @name @reference.inherit))

(class_definition
  superclasses: (argument_list
    (attribute
      attribute: (identifier) @name) @callee @reference.inherit))

(type
  (identifier) @name @reference.type)

(type
  (attribute
    attribute: (identifier) @name) @callee @reference.type)

(generic_type
  (identifier) @name @reference.type)

(import_statement) @import
(import_from_statement) @import

(comment) @comment
