"""What compare-storages is made of."""
