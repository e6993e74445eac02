; References.
(identifier) @reference.name
