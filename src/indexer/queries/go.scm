; Go definitions, references and imports. See python.scm for the capture names.
; Method receivers are read by the extractor (the method is qualified by its receiver type).
; The indexer finds these captures with a tree walk (language_go.cpp), which is faster than the query
; engine; a change here needs the same change there (the extraction tests compare them).

(function_declaration
  name: (identifier) @name) @definition.function

(method_declaration
  name: (field_identifier) @name) @definition.method

(type_spec
  name: (type_identifier) @name
  type: (struct_type)) @definition.struct

(type_spec
  name: (type_identifier) @name
  type: (interface_type)) @definition.interface

(type_spec
  name: (type_identifier) @name) @definition.type

(type_alias
  name: (type_identifier) @name) @definition.type

(field_declaration
  name: (field_identifier) @name) @definition.field

(method_elem
  name: (field_identifier) @name) @definition.method

; The grammar puts the commas of `const a, b = ...` in the name field too, and a field pattern
; stops at the first name: the names are the const_spec's direct identifiers (its values sit in an
; expression_list).
(source_file
  (const_declaration
    (const_spec
      (identifier) @name) @definition.constant))

(source_file
  (var_declaration
    (var_spec
      name: (identifier) @name) @definition.variable))

(source_file
  (var_declaration
    (var_spec_list
      (var_spec
        name: (identifier) @name) @definition.variable)))

(package_clause
  (package_identifier) @package)

(call_expression
  function: (identifier) @name) @reference.call

(call_expression
  function: (selector_expression
    field: (field_identifier) @name) @callee) @reference.call

; Type uses. Definition names are type identifiers too; the extractor drops those.
(type_identifier) @name @reference.type

(qualified_type
  name: (type_identifier) @name) @callee @reference.type

; Embedded fields and interfaces.
(field_declaration
  !name
  type: [(type_identifier) @name
         (pointer_type (type_identifier) @name)]) @reference.inherit

(field_declaration
  !name
  type: [(qualified_type name: (type_identifier) @name)
         (pointer_type (qualified_type name: (type_identifier) @name))] @callee) @reference.inherit

(interface_type
  (type_elem
    (type_identifier) @name @reference.inherit))

(import_declaration) @import

(comment) @comment
