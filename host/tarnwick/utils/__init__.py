"""Small helpers shared across the tool."""
