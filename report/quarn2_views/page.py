"""Generates the page from its model, with Jinja2. Escapes every text except the style, the script and the plots."""

import base64
import hashlib
import os

import jinja2
from markupsafe import Markup, escape

from . import page_model
from .plots import deletions_plot, intake_plot, space_plot
from .texts import count_text, size_text

MAX_BYTES = 1_000_000
# The sizes in bytes of the fixed parts of a row in the table of users: the HTML elements around the values, and the
# texts of the last column.
_ROW_BYTES, _OVERDUE_BYTES, _OTHER_BYTES = 45, 20, 30
_HERE = os.path.dirname(os.path.abspath(__file__))


def _read(name):
    with open(os.path.join(_HERE, name), encoding="utf-8") as file:
        return file.read()


def _hash(text):
    """Returns the source expression with which the content security policy allows this text."""
    return "sha256-" + base64.b64encode(hashlib.sha256(text.encode()).digest()).decode()


def _constants():
    style, script = _read("page.css"), _read("page.js")
    return {"style": Markup(style), "script": Markup(script), "style_hash": _hash(style), "script_hash": _hash(script)}


def _template():
    loader = jinja2.FileSystemLoader(_HERE)
    environment = jinja2.Environment(loader=loader, autoescape=True, trim_blocks=True, lstrip_blocks=True,
                                     undefined=jinja2.StrictUndefined)
    return environment.get_template("page.html")


def _bytes_of(row):
    texts = str(escape(row["name"])) + row["newest"] + str(row["full"]) + str(row["daily"]) + row["size_text"]
    return (_ROW_BYTES + len(texts.encode()) + (_OVERDUE_BYTES if row["is_overdue"] else 0)
            + (_OTHER_BYTES if row["other"] else 0))


def plots(history, lives, protected_now):
    """Returns the values of the template for the plots and the tables below them."""
    dates, space = page_model.space_series(history, lives, protected_now)
    intake = history.intakes()
    deletions = page_model.deletion_series(history)
    found = {"space_plot": None, "intake_plot": None, "deletions_plot": None}
    if space:
        label = "; ".join(page_model.span_text(name, dates, values, size_text) for name, values in space.items())
        found.update(space_plot=Markup(space_plot(dates, space, label)), space_heads=list(space),
                     space_rows=page_model.table_of(dates, space, size_text))
    if any(intake):
        label = f"{size_text(sum(intake))} in {count_text(len(dates), 'day')}, at most {size_text(max(intake))} on a day"
        found.update(intake_plot=Markup(intake_plot(dates, intake, label)),
                     intake_rows=page_model.table_of(dates, {"": intake}, size_text))
    if deletions:
        label = "; ".join(f"{name}: {sum(values)}" for name, values in deletions.items())
        found.update(deletions_plot=Markup(deletions_plot(dates, deletions, label)), deletions_heads=list(deletions),
                     deletions_rows=page_model.table_of(dates, deletions, str))
    return found


def page_of(model):
    """Returns the page as bytes. `model` contains the values of the template. If the page would be larger than MAX_BYTES, it shows only the first rows of `users`."""
    template, constants = _template(), _constants()
    users = model.get("users", [])
    for row in users:
        row["size_text"] = size_text(row["size"])
    empty = template.render(**constants, **{**model, "users": users[:1]})
    shown = page_model.fitting(users, MAX_BYTES - len(empty.encode()), _bytes_of)
    return template.render(**constants, **{**model, "users": shown}).encode()
