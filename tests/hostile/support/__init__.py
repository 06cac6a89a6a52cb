"""What the attacks have in common: the wire, victims, what is measured of them, and the checks."""
