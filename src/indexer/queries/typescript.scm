; TypeScript additions to javascript.scm (TypeScript and TSX).
; Mirrored by the walker in language_javascript.cpp (see javascript.scm).

(interface_declaration
  name: (type_identifier) @name) @definition.interface

(type_alias_declaration
  name: (type_identifier) @name) @definition.type

(enum_declaration
  name: (identifier) @name) @definition.enum

(abstract_class_declaration
  name: (type_identifier) @name) @definition.class

(function_signature
  name: (identifier) @name) @definition.function

; Members of interfaces and of object types given a name (not inline parameter types).
(interface_body
  (method_signature
    name: (_) @name) @definition.method)

(type_alias_declaration
  value: (object_type
    (method_signature
      name: (_) @name) @definition.method))

(abstract_method_signature
  name: (_) @name) @definition.method

(interface_body
  (property_signature
    name: (_) @name) @definition.property)

(type_alias_declaration
  value: (object_type
    (property_signature
      name: (_) @name) @definition.property))

(public_field_definition
  name: (_) @name) @definition.field

(module
  name: (_) @name) @definition.module

(internal_module
  name: (_) @name) @definition.namespace

; Type uses. Definition names are type identifiers too; the extractor drops those, and the
; declarations of type parameters (`<T>`).
(type_identifier) @name @reference.type

(type_parameter
  name: (type_identifier) @not_use)

(nested_type_identifier
  name: (type_identifier) @name) @callee @reference.type

(extends_clause
  value: (identifier) @name @reference.inherit)

(extends_clause
  value: (member_expression
    property: (property_identifier) @name) @callee @reference.inherit)

(implements_clause
  (type_identifier) @name @reference.inherit)

(extends_type_clause
  type: (type_identifier) @name @reference.inherit)
