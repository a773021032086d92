; JavaScript-only node shapes (TypeScript spells these differently).

(field_definition
  property: (_) @name) @definition.field

(class_heritage
  (identifier) @name @reference.inherit)

(class_heritage
  (member_expression
    property: (property_identifier) @name) @callee @reference.inherit)
