"""The Debug Adapter Protocol: the debuggee's side of it, and what both sides share."""
