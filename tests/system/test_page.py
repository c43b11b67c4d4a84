"""quarn2_page: one HTML file from the output of quarn2_report."""

import base64
import collections
import hashlib
import html.parser
import itertools
import json
import os
import random
import re
import stat
import subprocess
import sys

from local_files import read, write
from processes import start
from report_test_case import HOSTILE, REPORT, VIEWS, ReportTest
from samples import DATE, chain, day, write_info
from system_test import SystemTest
from waiting import DEADLINE

sys.path.insert(0, VIEWS)
from quarn2_views import history, page_model, plots  # noqa: E402
from quarn2_views.history import Life  # noqa: E402

# Elements that need no end tag. The parser of the library does not know which start tags end an open element.
VOID = {"meta", "input", "!doctype"}
IMPLIED = {"li", "td", "th", "tr"}


class Page(html.parser.HTMLParser):
    """Collects the elements and the text of a page, and checks that the elements are nested."""

    def __init__(self, text):
        super().__init__()
        self.elements, self.texts, self.open = [], collections.defaultdict(list), []
        self.feed(text)
        self.close()
        if self.open:
            raise AssertionError(f"these elements do not end: {self.open}")

    def handle_starttag(self, tag, attrs):
        names = [name for name, _ in attrs]
        if len(set(names)) != len(names):
            raise AssertionError(f"{tag} has an attribute twice: {names}")
        self.elements.append((tag, dict(attrs)))
        if tag in IMPLIED:
            # A cell ends the previous cell. A row ends the previous row and its last cell. An item ends the previous
            # item.
            ends = {"td": ("td", "th"), "th": ("td", "th"), "tr": ("td", "th", "tr"), "li": ("li",)}[tag]
            while self.open and self.open[-1] in ends:
                self.open.pop()
        if tag not in VOID:
            self.open.append(tag)

    def handle_startendtag(self, tag, attrs):
        self.elements.append((tag, dict(attrs)))

    def handle_endtag(self, tag):
        while self.open and self.open[-1] != tag and self.open[-1] in IMPLIED:
            self.open.pop()
        if not self.open or self.open.pop() != tag:
            raise AssertionError(f"</{tag}> ends nothing at {self.getpos()}")

    def handle_data(self, data):
        if self.open and data.strip():
            self.texts[self.open[-1]].append(data.strip())

    def all(self, tag):
        return [attributes for name, attributes in self.elements if name == tag]


class Past(SystemTest):
    """The figures of each day, which the plots show."""

    def past(self, *events, first=day(-3), last=DATE):
        found = history.History(history.ordinal(first), history.ordinal(last))
        for number, kind, members in events:
            found.add({"time": f"{day(number)}T12:00:00.000Z", "event": kind, "user": "a", "date": day(number),
                       "type": "full", "size": None, "used": None, "limit": None, "reason": None, **members})
        return found

    def test_used_and_limit_are_those_of_the_last_event(self):
        found = self.past((-9, "stored", {"used": 1}), (-2, "stored", {"used": 5, "limit": 9}), (-2, "stored", {"used": 6}),
                          (0, "stored", {"limit": 8}), (1, "stored", {"used": 99}))
        self.assertEqual([day(-2), day(-1), DATE], [history.date_text(one) for one in found.days()])
        self.assertEqual(([6, 6, 6], [9, 9, 8]), (found.used(), found.limit()))
        self.assertEqual([], list(self.past().days()))
        self.assertEqual([None, None, None, 7], self.past((-3, "x", {}), (0, "x", {"used": 7})).used())

    def test_intake_and_deletions_are_added_up(self):
        found = self.past((-1, "completed", {"size": 5}), (-1, "completed", {"size": 6}), (0, "completed", {}),
                          (0, "deleted", {"reason": "asked"}), (0, "deleted", {"reason": None}))
        self.assertEqual([11, 0], found.intakes())
        self.assertEqual({page_model.REASONS["asked"]: [0, 1], page_model.REASONS["unknown"]: [0, 1]},
                         page_model.deletion_series(found))
        self.assertEqual(11, history.usual_intake(found))
        self.assertIsNone(history.usual_intake(self.past()))

    def test_the_lives_of_deleted_backups(self):
        found = self.past((-2, "completed", {}), (-1, "deleted", {"date": day(-2), "size": 4, "reason": "asked"}),
                          (0, "deleted", {"date": day(-9), "size": 5, "type": "incremental"}),
                          (0, "deleted", {"date": day(-8), "size": 6, "reason": "incomplete"}),
                          (0, "deleted", {"date": "custom", "size": 7}))
        ordinal = history.ordinal
        self.assertEqual([Life("a", day(-2), True, 4, ordinal(day(-2)), ordinal(day(-1))),
                          Life("a", day(-9), False, 5, ordinal(day(-3)), ordinal(DATE))], found.lives)

    def test_protected_sums(self):
        one, two, three, four = range(1, 5)
        for lives, expected in (
                ([], [0, 0, 0]),
                ([Life("a", "1", True, 5, 0, None)], [5, 5, 5]),
                ([Life("a", "1", True, 5, two, None), Life("a", "2", False, 1, three, None)], [0, 5, 6]),
                ([Life("a", "1", True, 5, one, None), Life("a", "2", True, 7, two, three)], [5, 7, 5]),
                ([Life("a", "1", True, 5, one, two), Life("a", "2", False, 7, one, None)], [12, 7, 7]),
                ([Life("a", "1", True, 5, one, None), Life("b", "1", True, 6, three, four)], [5, 5, 11]),
                ([Life("a", "2", False, 3, one, None), Life("a", "3", True, 9, four, None)], [3, 3, 3])):
            with self.subTest(lives=lives):
                self.assertEqual(expected, history.protected_sums(lives, range(one, four)))

    def test_protected_sums_of_random_lives_are_those_of_the_definition(self):
        seed = int(os.environ.get("QUARN2_CP_SEED") or random.randrange(10**6))
        print(f"seed {seed}")
        dice = random.Random(seed)
        for _ in range(300):
            lives = []
            for user, date in itertools.product("ab", "12345"):
                begin = dice.randrange(8)
                end = dice.choice([None, begin + dice.randrange(1, 4)])
                if dice.random() < 0.8:
                    lives.append(Life(user, date, dice.random() < 0.4, dice.randrange(100), begin, end))
            expected = [sum(self.protected(user, one, lives) for user in "ab") for one in range(2, 7)]
            self.assertEqual(expected, history.protected_sums(lives, range(2, 7)), (seed, lives))

    @staticmethod
    def protected(user, at, lives):
        found = sorted((life.date, life.is_full, life.size) for life in lives
                       if life.user == user and life.begin <= at and not (life.end is not None and life.end <= at))
        total = found[-1][2] if found else 0
        if found and not found[-1][1]:
            total += next((size for _, is_full, size in reversed(found) if is_full), 0)
        return total


class Decisions(SystemTest):
    def test_what_does_not_fit_is_left_out_and_overdue_users_come_first(self):
        rows = [{"name": name, "is_overdue": name in "cd"} for name in "abcd"]
        for budget, names in ((4, "abcd"), (3, "acd"), (1, "c"), (0, ""), (-5, "")):
            self.assertEqual(names, "".join(row["name"] for row in page_model.fitting(rows, budget, lambda row: 1)))

    def test_the_parts_of_the_bar_are_the_limit(self):
        status = {"limits": {"size": 1000}, "used": 500, "protected": 200, "never_evicted": 50, "unfinished": 30,
                  "being_deleted": 20, "reserved": None}
        def shares(**changes):
            return [float(part["share"]) for part in page_model.bar({**status, **changes})]
        self.assertEqual([25, 30, 5, 40], shares())
        self.assertEqual([25, 30, 15, 30], shares(reserved=100))
        self.assertEqual([25, 75, 0, 0], shares(used=9000))
        for limit in (None, "none", 0):
            self.assertIsNone(page_model.bar({**status, "limits": {"size": limit}}))

    def test_evictions_are_cut_with_their_number(self):
        steps = [{"step": "start", "action": "possible"}, {"step": "upload", "action": "impossible", "missing": 1500}]
        steps += [{"step": "start", "action": "delete", "user": "<a>", "date": DATE, "type": "full", "size": 5,
                   "reason": "count-full"}] * 101 + [{"step": "end", "action": "keep"}]
        found = page_model.evictions(steps)
        self.assertEqual((100, 101), (len(found["rows"]), found["number"]))
        self.assertEqual(["for the uploads of a usual night: 1.50 kB are missing even after all evictions"],
                         found["impossible"])

    def test_plots_have_only_what_is_allowed(self):
        dates = [day(number) for number in range(-30, 1)]
        series = {"<b>": [None] + list(range(30)), 'a"b': [10**15] * 31}
        for svg in (plots.space_plot(dates, series, '"><b>'), plots.intake_plot(dates, [1] * 31, "x"),
                    plots.deletions_plot(dates, {"x": [0] * 31, "y": [3] * 31}, "x")):
            found = Page(svg)
            self.assertLessEqual({tag for tag, _ in found.elements}, {"svg", "g", "rect", "path", "text", "circle"})
            self.assertNotRegex(svg, "(?i)script|style=|href|xmlns|<!--|url[(]|http")
            self.assertEqual({"role": "img"}, {key: value for key, value in found.all("svg")[0].items() if key == "role"})
            self.assertIn(DATE[:4], found.texts["text"][-1])
        self.assertGreater(len(found.all("rect")), 31)


class Contrast(SystemTest):
    """The colours of the style, for light and for dark mode, by the formula of WCAG 2."""

    @staticmethod
    def luminance(colour):
        parts = [int(colour[place:place + 2], 16) / 255 for place in (1, 3, 5)]
        red, green, blue = (part / 12.92 if part <= 0.04045 else ((part + 0.055) / 1.055) ** 2.4 for part in parts)
        return 0.2126 * red + 0.7152 * green + 0.0722 * blue

    def contrast(self, one, other):
        dark, light = sorted((self.luminance(one), self.luminance(other)))
        return (light + 0.05) / (dark + 0.05)

    def test_of_texts_and_of_plots(self):
        style = read(os.path.join(VIEWS, "quarn2_views/page.css")).decode()
        palettes = [dict(re.findall("--([a-z0-9]+): (#[0-9a-f]{6})", block))
                    for block in re.findall(r":root \{(.*?)\}", style, re.S)]
        self.assertEqual(2, len(palettes))
        for palette in palettes:
            self.assertEqual(20, len(palette))
            for name in ("text", "quiet", "good", "warning", "bad"):
                for ground in ("ground", "raised"):
                    self.assertGreaterEqual(self.contrast(palette[name], palette[ground]), 4.5, (name, ground))
            for number in range(len(page_model.REASONS)):
                self.assertGreaterEqual(self.contrast(palette[f"c{number}"], palette["ground"]), 3, number)


class Pages(ReportTest):
    def setUp(self):
        super().setUp()
        self.file = os.path.join(self.folder, "page.html")

    def page(self, *arguments, report=None, status=0):
        """Returns the text of the page and standard error."""
        process = start([os.path.join(VIEWS, "quarn2_page"), "--report", report or self.binary, *arguments, self.file],
                        cwd="/", env=self.r.environment(), stdin=subprocess.DEVNULL, stderr=subprocess.PIPE)
        err = process.communicate(timeout=DEADLINE)[1].decode()
        self.assertEqual(status, process.returncode, err)
        text = read(self.file).decode()
        self.check(text)
        return text, err

    def check(self, text):
        """Checks the conditions that every page must meet."""
        found = Page(text)
        self.assertLessEqual(len(text.encode()), 1_000_000)
        self.assertEqual(0o640, stat.S_IMODE(os.stat(self.file).st_mode))
        policy, = [meta["content"] for meta in found.all("meta") if meta.get("http-equiv") == "Content-Security-Policy"]
        hashes = ["'sha256-" + base64.b64encode(hashlib.sha256(content.encode()).digest()).decode() + "'" for content in (
            re.search(f"<{tag}>(.*?)</{tag}>", text, re.S).group(1) for tag in ("style", "script"))]
        self.assertEqual(f"default-src 'none'; style-src {hashes[0]}; script-src {hashes[1]}; base-uri 'none'; "
                         "form-action 'none'", policy)
        self.assertEqual((1, 1), (len(found.all("style")), len(found.all("script"))))
        for tag, attributes in found.elements:
            self.assertNotIn(tag, ("a", "img", "link", "iframe", "object", "embed", "base", "use", "image"))
            for name in attributes:
                self.assertFalse(name.startswith("on") or name in ("style", "href", "src", "xlink:href", "action"), attributes)
        self.assertNotRegex(text, "https?:|@import|url[(]")
        self.check_for_screen_readers(found)

    def check_for_screen_readers(self, found):
        self.assertEqual("en", found.all("html")[0]["lang"])
        levels = [tag for tag, _ in found.elements if re.fullmatch("h[1-6]", tag)]
        self.assertEqual(["h1"] + ["h2"] * (len(levels) - 1), levels)
        for header in found.all("th"):
            self.assertIn(header["scope"], ("col", "row"))
        for picture in found.all("svg"):
            self.assertTrue(picture.get("aria-label") or picture.get("aria-hidden"), picture)
        identifiers = [attributes["id"] for _, attributes in found.elements if "id" in attributes]
        self.assertEqual(len(set(identifiers)), len(identifiers))
        for _, attributes in found.elements:
            for name in ("aria-labelledby", "for"):
                self.assertIn(attributes.get(name), [None, *identifiers])
        self.assertEqual("width=device-width, initial-scale=1",
                         next(meta["content"] for meta in found.all("meta") if meta.get("name") == "viewport"))

    def events(self, count):
        """Writes one night for each of the last days: a completed and a deleted backup."""
        lines = ""
        for number in range(1 - count, 1):
            for kind, more in (("completed", {"size": 1000}), ("deleted", {"reason": "count-full", "size": 900})):
                lines += json.dumps({"time": f"{day(number)}T12:00:00.000Z", "event": kind, "user": "web1", "used": 5000,
                                     "limit": 9000, "date": day(number - 20 * (kind == "deleted")), "type": "full",
                                     **more}) + "\n"
        os.chmod(write(self.r.file("var/quarn2_cp.events"), lines), 0o600)

    def test_shows_figures_plots_evictions_and_users(self):
        self.events(20)
        for number in range(-6, 1):
            write_info(self.r.info_root, "web1", day(number), size="1000", created=f"{day(number)} 01:00:00")
        write_info(self.r.info_root, "web2", day(-2), size="70", created=f"{day(-2)} 01:00:00")
        text, err = self.page("--date", DATE, "--size-limit", "7900", "--count-limit", "7:9")
        found = Page(text)
        self.assertEqual("", err)
        self.assertEqual(["Space", "Figures", "Overdue users", "Next evictions", "Intake per day", "Deletions by reason",
                          "Users"], found.texts["h2"])
        # The page has the bar with four legend entries, and three plots: space with three entries, intake with none,
        # deletions with one.
        self.assertEqual(12, len(found.all("svg")))
        for pattern in ("Critical", "<th scope=\"row\">Used<td>7.07 kB", "<th scope=\"row\">Free<td>830 B",
                        f"<th scope=row>web2<td>{day(-2)}<td>1<td>0<td>70 B<td class=bad>overdue",
                        f"<th scope=\"row\">web2<td>{day(-2)}<td>47 hours",
                        f"<th scope=\"row\">web1<td>{day(-6)}<td>full<td class=\"number\">1.00 kB<td>space for an upload",
                        "20.0 kB in 20 days, at most 1.00 kB on a day", "more full backups than the count limit: 20"):
            self.assertIn(pattern, text)
        self.assertEqual(20 * 3, text.count("<th scope=\"row\">2026-"))

    def test_a_single_day_and_no_events_and_no_backups(self):
        self.assertIn("There are no backups", self.page()[0])
        self.events(1)
        chain(self.r, "web1", "FD")
        text = self.page("--date", DATE)[0]
        self.assertIn("There is no plan: the limits are unknown", text)
        self.assertIn("Used and protected space", text)

    def test_a_report_that_fails_leaves_no_old_figures(self):
        chain(self.r, "web1", "FD")
        self.assertIn("web1", self.page()[0])
        broken = write(os.path.join(self.folder, "broken"), "#!/bin/sh\necho '{\"used\":1}'\n")
        os.chmod(broken, 0o755)
        for arguments, report, reason in ((["--path", "var/none"], None, "info root 'var/none' does not exist"),
                                          ([], "/nothing", "/nothing cannot be started"),
                                          ([], broken, "are both of the same version?")):
            text, err = self.page(*arguments, report=report, status=1)
            self.assertNotIn("web1", text)
            self.assertIn("There is no report", text)
            self.assertIn(reason, html.unescape(text))
            self.assertIn(reason, err)

    def test_hostile_names_are_data(self):
        names = HOSTILE + [b"</script><img src=x onerror=alert(1)>", b"{{ 7*7 }}", b"a&lt;b", b"' onclick='x"]
        for name in names:
            name = name.replace(b"/", b"")
            with open(os.path.join(self.r.info_root.encode(), day(-5).encode() + b"." + name + b".info"), "wb") as file:
                file.write(b"type=full\nsize=10\nfinished=" + day(-5).encode() + b" 01:00:00")
        self.events(2)
        text = self.page("--date", DATE, "--size-limit", "100", "--count-limit", "4:4")[0]
        for letter in text.replace("\n", ""):
            self.assertTrue(letter.isprintable(), repr(letter))
        shown = Page(text).texts["th"]
        for name in ("<script>alert(1)", "{{ 7*7 }}", "a&lt;b", "\\u202erevers", "quote\"'\\\\", "\\x1b[2Jcrimson", "line\\nfeed",
                     "<script><img src=x onerror=alert(1)>", "n" * 200):
            self.assertIn(name, shown)
        text, err = self.page("--date", DATE, "--anonymous")
        for name in ("crimson", "alert", "quote", "revers", "nnn", "7*7"):
            self.assertNotIn(name, text + err)
        self.assertEqual(len(names) * 2, len(set(re.findall("user-[0-9a-f]{16}", text))) * 2)

    def test_events_of_another_storage_are_not_shown(self):
        line = {"time": f"{DATE}T12:00:00.000Z", "event": "completed", "user": "web1", "date": DATE, "size": 5, "used": 5}
        os.chmod(write(self.r.file("var/quarn2_cp.events"), json.dumps({**line, "storage": "ownstore"})), 0o600)
        with open(self.r.file("var/quarn2_cp.events"), "a", encoding="utf-8") as file:
            file.write("\n")
        self.assertIn("No backup was completed", self.page("--date", DATE)[0])
        text = self.page("--date", DATE, "--storage", "ownstore")[0]
        self.assertNotIn("No backup was completed", text)
        self.assertIn("<title>Backups of the storage ownstore</title>", text)
        self.assertNotIn("ownstore", self.page("--date", DATE, "--storage", "ownstore", "--anonymous")[0])

    def test_ten_thousand_users_are_at_most_a_megabyte(self):
        """The report is built from the output for few backups, because so many info files would take long to write."""
        chain(self.r, "web1", "FDD")
        modes = {}
        for mode in ("--status", "--check", "--history", "--list", "--plan"):
            modes[mode] = self.report(mode, "--json", "--date", DATE, *(["--size-limit", "9"] if mode == "--plan" else []))[1]
        one = json.loads(modes["--list"].splitlines()[0])
        def use(users):
            modes["--list"] = "".join(json.dumps({**one, "user": user}) + "\n" for user in users)
            for mode, text in modes.items():
                write(os.path.join(self.folder, mode), text)
            os.chmod(write(os.path.join(self.folder, "report"), f'#!/bin/sh\ncat "{self.folder}/$1"\n'), 0o755)
            return self.page(report=os.path.join(self.folder, "report"))[0]
        text = use(f"customer{number:05}" for number in range(10000))
        self.assertEqual(10000, text.count("<th scope=row>customer"))
        self.assertNotIn("The page has space", text)
        text = use("\u202e" * 100 + str(number) for number in range(10000))
        self.assertRegex(text, "The page has space for [0-9]+ of 10000 users")

    def test_the_installed_programs_find_their_files(self):
        # The directory of the build whose programs are tested.
        build = os.path.dirname(REPORT)
        subprocess.run(["cmake", "--install", build, "--prefix", self.r.path], check=True, stdout=subprocess.DEVNULL)
        chain(self.r, "web1", "FD")
        for program in ("quarn2_page", "quarn2_metrics"):
            for folder in ("", "linked"):
                path = self.r.file("sbin/" + program)
                if folder:  # A package installs links to the programs, which must work too.
                    os.makedirs(self.r.file(folder), exist_ok=True)
                    os.symlink(path, self.r.file(f"{folder}/{program}"))
                    path = self.r.file(f"{folder}/{program}")
                target = os.path.join(self.folder, program + ".prom")
                subprocess.run([path, "--date", DATE, target], check=True, env=self.r.environment(), stderr=subprocess.PIPE)
                self.assertIn(b"web1" if program == "quarn2_page" else b"quarn2_report_success", read(target))

    def test_the_command_line_and_the_file_are_checked(self):
        for arguments in (["--days", "1"], ["--days", "x"], []):
            result = subprocess.run([os.path.join(VIEWS, "quarn2_page"), *arguments], capture_output=True, check=False)
            self.assertEqual(2, result.returncode)
        result = subprocess.run([os.path.join(VIEWS, "quarn2_page"), "--report", self.binary, "/dev/null"],
                                capture_output=True, check=False)
        self.assertEqual((1, b"quarn2_page: '/dev/null' cannot be written: it is not a plain file\n"),
                         (result.returncode, result.stderr))
        self.assertTrue(stat.S_ISCHR(os.stat("/dev/null").st_mode))
