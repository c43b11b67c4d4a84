"""The modules of bench/compare-storages."""
