"""Measures what the daemon costs on its target."""
