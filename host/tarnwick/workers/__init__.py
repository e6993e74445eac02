"""Background workers of the tool."""
