; Declarations. Whether a variable holds a function, a class or a value,
; and what the module exports, is read by the JavaScript rules.
(function_declaration name: (identifier)) @definition.function
(generator_function_declaration name: (identifier)) @definition.function
(class_declaration name: (identifier)) @definition.class
(method_definition name: (_)) @definition.method
(field_definition property: (_)) @definition.field
(variable_declarator name: (identifier)) @definition.attribute

; References.
(call_expression function: (identifier) @reference.call)
(call_expression function: (member_expression property: (property_identifier) @reference.call))
(new_expression constructor: (identifier) @reference.call)
(new_expression constructor: (member_expression property: (property_identifier) @reference.call))
(member_expression property: (property_identifier) @reference.field)
(jsx_opening_element name: (identifier) @reference.call)
(jsx_self_closing_element name: (identifier) @reference.call)
(identifier) @reference.name
(shorthand_property_identifier) @reference.name

; Parameters and variables (those at module level are declarations too, and
; stay uses).
(formal_parameters (identifier) @local)
(formal_parameters (assignment_pattern left: (identifier) @local))
(arrow_function parameter: (identifier) @local)
(variable_declarator name: (identifier) @local)
(for_in_statement left: (identifier) @local)
(catch_clause parameter: (identifier) @local)
