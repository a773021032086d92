; JSX elements used as components (lower-case tags are HTML and are dropped by the extractor).
; Mirrored by the walker in language_javascript.cpp (see javascript.scm).

(jsx_opening_element
  name: (identifier) @name) @reference.call

(jsx_self_closing_element
  name: (identifier) @name) @reference.call

(jsx_opening_element
  name: (member_expression
    property: (property_identifier) @name) @callee) @reference.call

(jsx_self_closing_element
  name: (member_expression
    property: (property_identifier) @name) @callee) @reference.call
