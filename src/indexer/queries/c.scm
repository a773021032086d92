; C definitions, references and includes; also the base of the C++ query (cpp.scm adds to it).
; See python.scm for the capture names. Declarations and function definitions carry no @name:
; the extractor reads names out of their declarators (which nest: pointers, arrays, functions).
; The indexer finds these captures (with those of cpp.scm for C++) with a tree walk
; (language_c.cpp), which is faster than the query engine; a change here needs the same change
; there (the extraction tests compare them).
; Declarations inside function bodies are dropped by the extractor.

(function_definition) @definition.function

(translation_unit (declaration) @definition.declaration)
(preproc_ifdef (declaration) @definition.declaration)
(preproc_if (declaration) @definition.declaration)
(preproc_else (declaration) @definition.declaration)
(preproc_elif (declaration) @definition.declaration)
(preproc_elifdef (declaration) @definition.declaration)
(declaration_list (declaration) @definition.declaration)
(linkage_specification body: (declaration) @definition.declaration)

(field_declaration_list (field_declaration) @definition.member)

(struct_specifier
  name: (type_identifier) @name
  body: (_)) @definition.struct

(union_specifier
  name: (type_identifier) @name
  body: (_)) @definition.struct

(enum_specifier
  name: (type_identifier) @name
  body: (_)) @definition.enum

(type_definition) @definition.typedef

; Object-like macros with a value (include guards have none) and function-like macros.
(preproc_def
  name: (identifier) @name
  value: (_)) @definition.constant

(preproc_function_def
  name: (identifier) @name) @definition.function

(call_expression
  function: (identifier) @name) @reference.call

(call_expression
  function: (field_expression
    field: (field_identifier) @name) @callee) @reference.call

; Type uses. Definition names are type identifiers too; the extractor drops those.
(type_identifier) @name @reference.type

(preproc_include) @import

(comment) @comment
