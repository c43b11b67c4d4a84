"""Plots as SVG elements of a page. Colours, fonts and strokes are in page.css."""

import re
import xml.etree.ElementTree

import pygal

from .texts import size_text

_SVG = "http://www.w3.org/2000/svg"
# The allowed SVG elements and attributes. All others are removed, so that no script, style or link of the plot library gets
# into the page.
_ELEMENTS = {"svg", "g", "rect", "path", "text", "circle"}
_ATTRIBUTES = {"class", "d", "height", "rx", "ry", "transform", "viewBox", "width", "x", "y", "cx", "cy", "r"}
# Groups that only the library's script uses, and empty groups.
_UNUSED_CLASSES = {"overlay", "text-overlay", "tooltip-overlay", "titles"}
_LONG_NUMBER = re.compile(r"(\d+\.\d)\d+")


def _cleaned(element):
    """Returns a copy with only the allowed parts, or None for an element that is not allowed."""
    tag = element.tag.removeprefix("{%s}" % _SVG) if isinstance(element.tag, str) else ""
    if tag not in _ELEMENTS or _UNUSED_CLASSES & set(element.get("class", "").split()):
        return None
    found = xml.etree.ElementTree.Element(tag)
    for name in sorted(_ATTRIBUTES & set(element.keys())):
        value = element.get(name)
        found.set(name, value if name == "class" else _LONG_NUMBER.sub(r"\1", value))
    found.text = element.text if tag == "text" else None
    found.extend([child for child in map(_cleaned, element) if child is not None])
    return found


def _svg(chart, label):
    """Returns the SVG element as a text."""
    root = _cleaned(xml.etree.ElementTree.fromstring(chart.render()))
    root.set("role", "img")
    root.set("aria-label", label)
    return xml.etree.ElementTree.tostring(root, encoding="unicode")


def _options(dates, formatter):
    every = max(1, len(dates) // 6)
    return {"width": 800, "height": 320, "margin": 8, "margin_right": 16, "js": [], "disable_xml_declaration": True,
            "x_labels": dates, "x_labels_major_every": every, "show_minor_x_labels": False, "truncate_label": -1,
            "include_x_axis": True, "value_formatter": formatter, "max_scale": 6,
            # The page has its own legend, whose texts wrap in a narrow window.
            "show_legend": False}


def _bytes(value):
    return size_text(int(value))


def space_plot(dates, series, label):
    """Draws lines of sizes. `series` is {name: values}; a value of None is unknown."""
    # With a single day the line has no length, so the plot shows a dot.
    chart = pygal.Line(show_dots=len(dates) == 1, **_options(dates, _bytes))
    for name, values in series.items():
        chart.add(name, values)
    return _svg(chart, label)


def intake_plot(dates, values, label):
    chart = pygal.Bar(**_options(dates, _bytes))
    chart.add("completed backups", values)
    return _svg(chart, label)


def deletions_plot(dates, series, label):
    """Draws stacked bars of numbers. `series` is {name: values}."""
    chart = pygal.StackedBar(**_options(dates, lambda value: f"{value:g}"))
    for name, values in series.items():
        chart.add(name, values)
    return _svg(chart, label)
