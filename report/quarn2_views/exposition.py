"""Writes metrics in the text format of Prometheus. The Python library of Prometheus does the formatting."""

from prometheus_client import CollectorRegistry, generate_latest
from prometheus_client.core import CounterMetricFamily, GaugeMetricFamily


class _Collector:
    def __init__(self, metrics, storage):
        self._metrics, self._storage = metrics, storage

    def collect(self):
        for metric in self._metrics:
            family = CounterMetricFamily if metric.is_counter else GaugeMetricFamily
            found = family(metric.name, metric.text, labels=["storage", *metric.labels])
            for labels, value in metric.samples:
                found.add_metric([self._storage, *labels], value)
            # The library would write only comments for a metric without samples, so omit it.
            if metric.samples:
                yield found


def text_of(metrics, storage):
    """Returns the bytes of the file. Each sample has the label `storage`."""
    registry = CollectorRegistry()
    registry.register(_Collector(metrics, storage))
    return generate_latest(registry)
