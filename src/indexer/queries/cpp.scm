; C++ additions to c.scm.
; Mirrored by the walker in language_c.cpp (see c.scm).

(class_specifier
  name: (_) @name
  body: (_)) @definition.class

(namespace_definition
  name: (_) @name) @definition.namespace

; An anonymous namespace is a scope without a name whose members are internal.
(namespace_definition
  !name) @scope.anonymous

(alias_declaration
  name: (type_identifier) @name) @definition.type

(template_declaration (declaration) @definition.declaration)

; Constructors, destructors and conversions declared in a class body.
(field_declaration_list (declaration) @definition.member)

; Qualified calls (`std::move(x)`, `a::b::f()`): the extractor finds the last name.
(call_expression
  function: (qualified_identifier) @callee) @reference.call

(call_expression
  function: (template_function
    name: (identifier) @name)) @reference.call

(call_expression
  function: (field_expression
    field: (template_method
      name: (field_identifier) @name)) @callee) @reference.call

(new_expression
  type: (type_identifier) @name) @reference.call

(new_expression
  type: (qualified_identifier
    name: (type_identifier) @name) @callee) @reference.call

(qualified_identifier
  name: (type_identifier) @name) @callee @reference.type

(qualified_identifier
  name: (template_type
    name: (type_identifier) @name)) @callee @reference.type

(base_class_clause
  (type_identifier) @name @reference.inherit)

(base_class_clause
  (qualified_identifier
    name: (type_identifier) @name) @callee @reference.inherit)

(base_class_clause
  (template_type
    name: (type_identifier) @name) @reference.inherit)

; `T x(a, b);` in a function body parses as a function declaration whose parameters are the
; types a and b: those are arguments, not type uses.
(compound_statement
  (declaration
    declarator: (function_declarator
      parameters: (parameter_list
        (parameter_declaration
          type: (type_identifier) @not_use
          !declarator)))))
