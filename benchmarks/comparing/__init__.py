"""What benchmarks/compare is made of."""
