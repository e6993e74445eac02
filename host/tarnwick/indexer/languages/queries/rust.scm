; Declarations. Functions inside an `impl` block or a trait are methods.
(function_item name: (identifier)) @definition.function
(function_signature_item name: (identifier)) @definition.function
(struct_item name: (type_identifier)) @definition.struct
(union_item name: (type_identifier)) @definition.struct
(enum_item name: (type_identifier)) @definition.enum
(enum_variant name: (identifier)) @definition.constant
(trait_item name: (type_identifier)) @definition.interface
(type_item name: (type_identifier)) @definition.type
(const_item name: (identifier)) @definition.constant
(static_item name: (identifier)) @definition.constant
(field_declaration name: (field_identifier)) @definition.field
(macro_definition name: (identifier)) @definition.function
(mod_item name: (identifier) body: (declaration_list)) @scope.namespace
(impl_item) @scope.type

; References.
(call_expression function: (identifier) @reference.call)
(call_expression function: (scoped_identifier name: (identifier) @reference.call))
(call_expression function: (field_expression field: (field_identifier) @reference.call))
(call_expression function: (generic_function function: (identifier) @reference.call))
(call_expression function: (generic_function function: (scoped_identifier name: (identifier) @reference.call)))
(call_expression function: (generic_function function: (field_expression field: (field_identifier) @reference.call)))
(macro_invocation macro: (identifier) @reference.call)
(field_expression field: (field_identifier) @reference.field)
(field_initializer field: (field_identifier) @reference.field)
(type_identifier) @reference.type
(identifier) @reference.name

; Parameters and local variables.
(parameter pattern: (identifier) @local)
(let_declaration pattern: (identifier) @local)
(closure_parameters (identifier) @local)
(for_expression pattern: (identifier) @local)
(tuple_pattern (identifier) @local)
