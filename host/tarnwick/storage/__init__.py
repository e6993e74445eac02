"""The SQLite index of a repository and the queries that read it."""
