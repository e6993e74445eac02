; Declarations. Declarators (pointers, references, qualified names,
; prototypes) are unwrapped by the C++ rules.
(function_definition) @definition.function
(translation_unit (declaration) @definition.declaration)
(preproc_if (declaration) @definition.declaration)
(preproc_ifdef (declaration) @definition.declaration)
(preproc_else (declaration) @definition.declaration)
(preproc_elif (declaration) @definition.declaration)
(declaration_list (declaration) @definition.declaration)
(template_declaration (declaration) @definition.declaration)
(field_declaration_list (declaration) @definition.declaration)
(field_declaration) @definition.field
(type_definition) @definition.type
(alias_declaration name: (type_identifier)) @definition.type
(class_specifier name: (type_identifier) body: (field_declaration_list)) @definition.class
(struct_specifier name: (type_identifier) body: (field_declaration_list)) @definition.struct
(union_specifier name: (type_identifier) body: (field_declaration_list)) @definition.struct
(enum_specifier name: (type_identifier) body: (enumerator_list)) @definition.enum
(enumerator name: (identifier)) @definition.constant
(preproc_def name: (identifier) value: (_)) @definition.constant
(preproc_function_def name: (identifier)) @definition.function
(namespace_definition name: (_)) @scope.namespace

; References.
(call_expression function: (identifier) @reference.call)
(call_expression function: (qualified_identifier name: (identifier) @reference.call))
(call_expression function: (qualified_identifier name: (qualified_identifier name: (identifier) @reference.call)))
(call_expression function: (template_function name: (identifier) @reference.call))
(call_expression function: (field_expression field: (field_identifier) @reference.call))
(field_expression field: (field_identifier) @reference.field)
(field_initializer (field_identifier) @reference.field)
(field_designator (field_identifier) @reference.field)
(type_identifier) @reference.type
(identifier) @reference.name

; Parameters and variables (those at file scope are declarations too, and
; stay uses). Declarators alone: patterns with more context cost more.
(parameter_declaration declarator: (identifier) @local)
(optional_parameter_declaration declarator: (identifier) @local)
(preproc_params (identifier) @local)
(for_range_loop declarator: (identifier) @local)
(declaration declarator: (identifier) @local)
(init_declarator declarator: (identifier) @local)
(pointer_declarator declarator: (identifier) @local)
(reference_declarator (identifier) @local)
(array_declarator declarator: (identifier) @local)
