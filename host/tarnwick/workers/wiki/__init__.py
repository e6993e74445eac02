"""The wiki worker: writes one page about a set of files of an indexed repository."""
