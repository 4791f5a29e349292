"""Languages of well-known libraries, ready for stepping: see sublanguages.kReady."""
