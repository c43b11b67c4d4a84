"""The metrics and the page: views of what quarn2_report prints as JSON."""
