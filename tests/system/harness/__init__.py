"""What the system tests stand on: a daemon under test, a bus peer and roaming services."""
