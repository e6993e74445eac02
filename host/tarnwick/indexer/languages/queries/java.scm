; Declarations. Field names are read from their declarators by the Java rules.
(class_declaration name: (identifier)) @definition.class
(record_declaration name: (identifier)) @definition.class
(interface_declaration name: (identifier)) @definition.interface
(annotation_type_declaration name: (identifier)) @definition.interface
(enum_declaration name: (identifier)) @definition.enum
(enum_constant name: (identifier)) @definition.constant
(method_declaration name: (identifier)) @definition.method
(annotation_type_element_declaration name: (identifier)) @definition.method
(constructor_declaration name: (identifier)) @definition.constructor
(compact_constructor_declaration name: (identifier)) @definition.constructor
(field_declaration) @definition.field
(constant_declaration) @definition.constant

; References.
(method_invocation name: (identifier) @reference.call)
(object_creation_expression type: (type_identifier) @reference.call)
(method_reference (identifier) @reference.call)
(field_access field: (identifier) @reference.field)
(type_identifier) @reference.type
(identifier) @reference.name

; Parameters and local variables.
(formal_parameter name: (identifier) @local)
(spread_parameter (variable_declarator name: (identifier) @local))
(local_variable_declaration declarator: (variable_declarator name: (identifier) @local))
(enhanced_for_statement name: (identifier) @local)
(catch_formal_parameter name: (identifier) @local)
(lambda_expression parameters: (identifier) @local)
(inferred_parameters (identifier) @local)
