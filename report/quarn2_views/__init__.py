"""The metrics and the page: views of the JSON output of quarn2_report."""
