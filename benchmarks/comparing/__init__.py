"""The parts of benchmarks/compare."""
