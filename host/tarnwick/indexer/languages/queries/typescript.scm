; Declarations. Whether a variable holds a function, a class or a value,
; and what the module exports, is read by the TypeScript rules.
(function_declaration name: (identifier)) @definition.function
(generator_function_declaration name: (identifier)) @definition.function
(function_signature name: (identifier)) @definition.function
(class_declaration name: (type_identifier)) @definition.class
(abstract_class_declaration name: (type_identifier)) @definition.class
(interface_declaration name: (type_identifier)) @definition.interface
(type_alias_declaration name: (type_identifier)) @definition.type
(enum_declaration name: (identifier)) @definition.enum
(enum_body name: (property_identifier) @definition.constant)
(enum_assignment name: (property_identifier)) @definition.constant
(method_definition name: (_)) @definition.method
(method_signature name: (_)) @definition.method
(abstract_method_signature name: (_)) @definition.method
(public_field_definition name: (_)) @definition.field
(property_signature name: (_)) @definition.field
(variable_declarator name: (identifier)) @definition.attribute
(internal_module name: (identifier)) @scope.namespace

; References.
(call_expression function: (identifier) @reference.call)
(call_expression function: (member_expression property: (property_identifier) @reference.call))
(new_expression constructor: (identifier) @reference.call)
(new_expression constructor: (member_expression property: (property_identifier) @reference.call))
(member_expression property: (property_identifier) @reference.field)
(type_identifier) @reference.type
(identifier) @reference.name
(shorthand_property_identifier) @reference.name

; Parameters and variables (those at module level are declarations too, and
; stay uses).
(required_parameter pattern: (identifier) @local)
(optional_parameter pattern: (identifier) @local)
(arrow_function parameter: (identifier) @local)
(variable_declarator name: (identifier) @local)
(for_in_statement left: (identifier) @local)
(catch_clause parameter: (identifier) @local)
(type_parameter name: (type_identifier) @local)
