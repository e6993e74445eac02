; Declarations. Declarators (pointers, arrays, prototypes) are unwrapped by
; the C rules, which also tell prototypes and variables apart.
(function_definition) @definition.function
(translation_unit (declaration) @definition.declaration)
(preproc_if (declaration) @definition.declaration)
(preproc_ifdef (declaration) @definition.declaration)
(preproc_else (declaration) @definition.declaration)
(preproc_elif (declaration) @definition.declaration)
(field_declaration) @definition.field
(type_definition) @definition.type
(struct_specifier name: (type_identifier) body: (field_declaration_list)) @definition.struct
(union_specifier name: (type_identifier) body: (field_declaration_list)) @definition.struct
(enum_specifier name: (type_identifier) body: (enumerator_list)) @definition.enum
(enumerator name: (identifier)) @definition.constant
(preproc_def name: (identifier) value: (_)) @definition.constant
(preproc_function_def name: (identifier)) @definition.function

; References. (A macro used at file scope, `LIST_HEAD(list);`, reads as a
; prototype: the C rules drop it, and its name is a call.)
(declaration declarator: (function_declarator declarator: (identifier) @reference.call))
(call_expression function: (identifier) @reference.call)
(call_expression function: (field_expression field: (field_identifier) @reference.call))
(field_expression field: (field_identifier) @reference.field)
(field_designator (field_identifier) @reference.field)
(type_identifier) @reference.type
(identifier) @reference.name

; Parameters and variables (those at file scope are declarations too, and
; stay uses). Declarators alone: patterns with more context cost more.
(parameter_declaration declarator: (identifier) @local)
(preproc_params (identifier) @local)
(declaration declarator: (identifier) @local)
(init_declarator declarator: (identifier) @local)
(pointer_declarator declarator: (identifier) @local)
(array_declarator declarator: (identifier) @local)
