// Placeholder until the daemon library lands.
