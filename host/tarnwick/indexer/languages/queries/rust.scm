; Declarations. Functions inside an `impl` block or a trait are methods.
(function_item name: (identifier) @name) @definition.function
(function_signature_item name: (identifier) @name) @definition.function
(struct_item name: (type_identifier) @name) @definition.struct
(union_item name: (type_identifier) @name) @definition.struct
(enum_item name: (type_identifier) @name) @definition.enum
(enum_variant name: (identifier) @name) @definition.constant
(trait_item name: (type_identifier) @name) @definition.interface
(type_item name: (type_identifier) @name) @definition.type
(const_item name: (identifier) @name) @definition.constant
(static_item name: (identifier) @name) @definition.constant
(field_declaration name: (field_identifier) @name) @definition.field
(macro_definition name: (identifier) @name) @definition.function
(mod_item name: (identifier) @name body: (declaration_list)) @scope.namespace
(impl_item type: (type_identifier) @name) @scope.type
(impl_item type: (generic_type type: (type_identifier) @name)) @scope.type
(impl_item type: (scoped_type_identifier name: (type_identifier) @name)) @scope.type

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
