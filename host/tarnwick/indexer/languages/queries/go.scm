; Declarations; the names of fields, constants and variables are their
; `name` fields. A type's kind (struct, interface, other) is read by the Go rules.
(function_declaration name: (identifier)) @definition.function
(method_declaration name: (field_identifier)) @definition.method
(type_spec name: (type_identifier)) @definition.type
(type_alias name: (type_identifier)) @definition.type
(field_declaration name: (field_identifier)) @definition.field
(method_elem name: (field_identifier)) @definition.method
(const_spec name: (identifier)) @definition.constant
(var_spec name: (identifier)) @definition.attribute

; References.
(call_expression function: (identifier) @reference.call)
(call_expression function: (selector_expression field: (field_identifier) @reference.call))
(selector_expression field: (field_identifier) @reference.field)
(keyed_element key: (literal_element (identifier) @reference.field))
(type_identifier) @reference.type
(identifier) @reference.name

; Parameters and local variables.
(parameter_declaration name: (identifier) @local)
(variadic_parameter_declaration name: (identifier) @local)
(short_var_declaration left: (expression_list (identifier) @local))
(range_clause left: (expression_list (identifier) @local))
(var_spec name: (identifier) @local)
(const_spec name: (identifier) @local)
(type_parameter_declaration name: (identifier) @local)
