; Rust definitions, references and imports. See python.scm for the capture names.
; @scope.impl marks an impl block: not a definition, but its functions are methods of its
; type (@scope.name).
; The indexer finds these captures with a tree walk (language_rust.cpp), which is faster than the
; query engine; a change here needs the same change there (the extraction tests compare them).

(function_item
  name: (identifier) @name) @definition.function

(function_signature_item
  name: (identifier) @name) @definition.function

(struct_item
  name: (type_identifier) @name) @definition.struct

(union_item
  name: (type_identifier) @name) @definition.struct

(enum_item
  name: (type_identifier) @name) @definition.enum

(trait_item
  name: (type_identifier) @name) @definition.trait

(type_item
  name: (type_identifier) @name) @definition.type

(mod_item
  name: (identifier) @name) @definition.module

(const_item
  name: (identifier) @name) @definition.constant

(static_item
  name: (identifier) @name) @definition.variable

(field_declaration
  name: (field_identifier) @name) @definition.field

(impl_item
  type: (_) @scope.name) @scope.impl

(call_expression
  function: (identifier) @name) @reference.call

(call_expression
  function: (field_expression
    field: (field_identifier) @name) @callee) @reference.call

(call_expression
  function: (scoped_identifier
    name: (identifier) @name) @callee) @reference.call

(call_expression
  function: (generic_function
    function: (identifier) @name)) @reference.call

(call_expression
  function: (generic_function
    function: [(scoped_identifier name: (identifier) @name)
               (field_expression field: (field_identifier) @name)] @callee)) @reference.call

(macro_invocation
  macro: (identifier) @name) @reference.call

(macro_invocation
  macro: (scoped_identifier
    name: (identifier) @name) @callee) @reference.call

; Type uses. Definition names are type identifiers too; the extractor drops those.
(type_identifier) @name @reference.type

(scoped_type_identifier
  name: (type_identifier) @name) @callee @reference.type

(impl_item
  trait: (type_identifier) @name @reference.inherit)

(impl_item
  trait: (scoped_type_identifier
    name: (type_identifier) @name) @callee @reference.inherit)

(impl_item
  trait: (generic_type
    type: (type_identifier) @name) @reference.inherit)

(trait_item
  bounds: (trait_bounds
    (type_identifier) @name @reference.inherit))

; Macro arguments are unparsed tokens: the extractor reads calls out of them.
(macro_invocation
  (token_tree) @tokens)

(use_declaration) @import

(line_comment) @comment
(block_comment) @comment
