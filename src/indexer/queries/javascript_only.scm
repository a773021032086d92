; JavaScript-only node shapes (TypeScript spells these differently).
; Mirrored by the walker in language_javascript.cpp (see javascript.scm).

(field_definition
  property: (_) @name) @definition.field

(class_heritage
  (identifier) @name @reference.inherit)

(class_heritage
  (member_expression
    property: (property_identifier) @name) @callee @reference.inherit)
