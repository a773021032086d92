; Java definitions, references and imports. See python.scm for the capture names.
; The indexer finds these captures with a tree walk (language_java.cpp), which is faster than the query
; engine; a change here needs the same change there (the extraction tests compare them).

(class_declaration
  name: (identifier) @name) @definition.class

(record_declaration
  name: (identifier) @name) @definition.class

(interface_declaration
  name: (identifier) @name) @definition.interface

(annotation_type_declaration
  name: (identifier) @name) @definition.interface

(enum_declaration
  name: (identifier) @name) @definition.enum

(method_declaration
  name: (identifier) @name) @definition.method

(field_declaration
  declarator: (variable_declarator
    name: (identifier) @name)) @definition.field

(constant_declaration
  declarator: (variable_declarator
    name: (identifier) @name)) @definition.constant

(package_declaration
  [(identifier) (scoped_identifier)] @package)

(method_invocation
  object: (_) @_object
  name: (identifier) @name) @callee @reference.call

(method_invocation
  !object
  name: (identifier) @name) @reference.call

(object_creation_expression
  type: [(type_identifier) @name
         (generic_type (type_identifier) @name)]) @reference.call

(object_creation_expression
  type: (scoped_type_identifier
    (type_identifier) @name .) @callee) @reference.call

; Type uses. Definition names are plain identifiers in Java, so these are all uses.
(type_identifier) @name @reference.type

(superclass
  [(type_identifier) @name
   (generic_type (type_identifier) @name)] @reference.inherit)

(super_interfaces
  (type_list
    [(type_identifier) @name
     (generic_type (type_identifier) @name)] @reference.inherit))

(extends_interfaces
  (type_list
    [(type_identifier) @name
     (generic_type (type_identifier) @name)] @reference.inherit))

(marker_annotation
  name: (identifier) @name) @reference.type

(annotation
  name: (identifier) @name) @reference.type

(import_declaration) @import

(line_comment) @comment
(block_comment) @comment
