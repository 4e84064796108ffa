"""Everything that can happen to the daemon, in an order drawn from a seed, beside a model of it."""
