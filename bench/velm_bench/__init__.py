"""The benchmarks: velmd beside its peers, as one table."""
