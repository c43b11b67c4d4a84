"""Generates random weeks: lists of steps for actions.py. The same seed gives the same steps."""

import datetime
import errno
import random

from backups import USERS

SUNDAY = datetime.date(2026, 11, 15)
# The backups of one user before the week, one character per day: F full, I incremental, - no backup.
PASTS = ["", "F", "FI", "FII", "FIII", "FFI", "FIFI", "FF", "F-F", "F-I", "FFF", "I", "II"]
FAULT_ROLES = [("client", 5), ("command", 3), ("daemon", 3), ("caller", 1)]
ACTIONS = ["kill_before", "kill_after", "torn", "fail", "fail"]
ERRORS = [errno.ENOSPC, errno.ENOSPC, errno.EIO, errno.EDQUOT, errno.EACCES]


class Week:
    def __init__(self, seed):
        self.choice = random.Random(f"week {seed}")
        self.users = self.choice.sample(USERS, self.choice.randint(1, len(USERS)))
        self.today = SUNDAY + datetime.timedelta(self.choice.randint(2, 4))
        self.made = []  # (user, date) of the generated jobs
        self.size = self.pick_size()
        self.count = self.pick_count()
        self.steps = []

    def pick_size(self):
        return self.choice.choice([0, 0, 2500, 4000, 6000, 8000])

    def pick_count(self):
        return self.choice.choice(["1000:1000", "2:2", "1:1", "1:0", "2:3", "0:0"])

    def generate(self):
        for user in self.users:
            self.past(user)
        length = len(self.steps) + self.choice.randint(7, 13)
        self.add("serve", **self.server())
        while len(self.steps) < length:
            self.choice.choices([self.job, self.again, self.go, self.note, self.delete, self.serve, self.kill,
                                 self.outage, self.full, self.mistake, self.clear, self.rescan, self.pair],
                                [12, 3, 4, 3, 3, 5, 2, 2, 1, 1, 0.3, 0.7, 3])[0]()
        return self.steps

    def past(self, user):
        letters = self.choice.choice(PASTS)
        for number, letter in enumerate(letters, -len(letters)):
            date = (self.today + datetime.timedelta(number)).isoformat()
            if letter != "-":
                fields = {"foreign": True} if self.choice.random() < 0.1 else {}
                self.add("past", user=user, date=date, **fields,
                         kind="full" if letter == "F" else "incremental", sizes=self.sizes())
                self.made.append((user, date))

    def sizes(self):
        return [self.choice.choice([40, 200, 700]) for _ in range(self.choice.randint(1, 3))]

    def add(self, do, **fields):
        self.steps.append({"do": do, **fields})

    def fault(self, chance, roles=None):
        if self.choice.random() >= chance:
            return {}
        names, weights = zip(*[one for one in FAULT_ROLES if roles is None or one[0] in roles])
        action = self.choice.choice(ACTIONS)
        fault = {"role": self.choice.choices(names, weights)[0], "action": action,
                  "number": int(2 ** self.choice.uniform(0, 7))}
        if action == "fail":
            fault["error"] = self.choice.choice(ERRORS)
            fault["lasting"] = self.choice.random() < 0.6
        return {"fault": fault}

    def server(self, **more):
        return {"date": self.today.isoformat(), "size": self.size, "count": self.count, **more}

    def serve(self):
        self.today += datetime.timedelta(self.choice.choice([0, 1, 1, 1, 2, -1]))
        if self.choice.random() < 0.3:
            self.size = self.pick_size()
        if self.choice.random() < 0.3:
            self.count = self.pick_count()
        self.add("serve", **self.server(**self.fault(0.2, ("caller", "daemon"))))
        if "fault" in self.steps[-1]:
            self.add("serve", **self.server())

    def job(self):
        if self.made and self.choice.random() < 0.3:
            self.job_of(*self.choice.choice(self.made))
        else:
            self.job_of(self.choice.choice(self.users), self.today.isoformat())
        if {"stop", "fault"} & self.steps[-1].keys() and self.choice.random() < 0.4:
            self.go_on()

    def go_on(self):
        """Continues an interrupted job. Before that, sometimes kills a process, removes a slice or restarts the
        server. After that, sometimes restarts the server."""
        meanwhile = self.choice.choice(["nothing", "kill", "lose", "serve"])
        if meanwhile == "kill":
            self.kill()
        elif meanwhile == "lose":
            self.add("go", **self.last_made(), slices=True)
            self.add("lose", **self.last_made())
        if meanwhile in ("kill", "serve"):
            self.add("serve", **self.server())
        self.add("go", **self.last_made())
        if self.choice.random() < 0.5:
            self.serve()

    def pair(self):
        """Adds a job and a step that often runs at the same time."""
        self.job()
        self.choice.choices([self.job, self.go, self.delete, self.kill], [5, 1, 2, 2])[0]()

    def again(self):
        if self.made:
            self.job_of(*self.made[-1])

    def job_of(self, user, date):
        kind = self.choice.choices(["full", "incremental", "custom"], [4, 6, 1])[0]
        if date == "custom":
            date, kind = self.today.isoformat(), "custom"
        fields = {"user": user, "date": date, "kind": kind,
                  "sizes": self.sizes()}
        if self.choice.random() < 0.25:
            fields["stop"] = self.choice.randint(1, 3)
        if self.choice.random() < 0.3:
            fields["keep"] = True
        careless = self.choice.choices([None, "ignores", "skips"], [6, 2, 2])[0]
        if careless:
            fields["careless"] = careless
        self.add("job", **fields, **self.fault(0.3))
        self.made.append((user, "custom" if kind == "custom" else date))

    def known(self):
        return dict(zip(("user", "date"), self.choice.choice(self.made)))

    def last_made(self):
        return dict(zip(("user", "date"), self.made[-1]))

    def go(self):
        if self.made:
            fields = {"stop": 1} if self.choice.random() < 0.3 else {}
            self.add("go", **self.last_made(), **fields, **self.fault(0.15))

    def note(self):
        if self.made and self.choice.random() < 0.3:
            self.add("note", **self.known(), late=True)
        elif self.made:
            self.add("note", **self.last_made())

    def delete(self):
        if self.made:
            fields = {"force": True} if self.choice.random() < 0.4 else {}
            self.add("delete", **self.known(), **fields, **self.fault(0.3, ("command",)))

    def kill(self):
        self.add("kill", who=self.choice.choice(["daemon", "client", "client", "caller"]))

    def outage(self):
        self.add("unmount", how=self.choice.choice(["missing", "empty"]))
        for _ in range(self.choice.randint(1, 2)):
            self.choice.choice([self.job, self.serve, self.delete])()
        self.add("mount")

    def full(self):
        self.add("fill", what=self.choice.choice(["storage", "var", "tmp"]))
        for _ in range(self.choice.randint(1, 2)):
            self.choice.choice([self.job, self.job, self.serve, self.delete])()
        self.add("room")

    def mistake(self):
        token = self.choice.choice(["other", "bad"])
        what = self.choice.choice(["serve", "clear", "delete"])
        if what == "serve":
            self.add("serve", **self.server(token=token))
            self.add("serve", **self.server())
        elif what == "clear":
            self.add("clear", token=token)
        elif self.made:
            self.add("delete", **self.known(), token="bad")

    def clear(self):
        self.add("clear", **self.fault(0.5, ("command",)))

    def rescan(self):
        self.add("serve", **self.server(rescan=True, **self.fault(0.5, ("caller",))))
        self.add("serve", **self.server())


def with_rare_steps(steps, choice):
    """Inserts changes of the token's password and of the machine's clock into some weeks. Password changes are rare,
    because encryption with a password is slow."""
    for rate, do, name, values in [(0.04, "password", "to", ["one", "two", None]),
                                   (0.1, "clock", "ahead", [True, False])]:
        if choice.random() >= rate:
            continue
        for value in values:
            steps.insert(choice.randint(0, len(steps)), {"do": do, name: value})
    return steps


def with_repeated_jobs(steps, choice):
    """Inserts into some weeks three jobs of one user: two that replace each other's backup, and the first one again.
    Then a server with a small limit needs the space of the replaced backup."""
    if choice.random() >= 0.1:
        return steps
    servers = [number for number, step in enumerate(steps) if step["do"] == "serve" and "token" not in step]
    place = choice.choice(servers)
    server = {name: steps[place][name] for name in ("date", "count")}
    earlier = (datetime.date.fromisoformat(server["date"]) - datetime.timedelta(1)).isoformat()
    first, second = choice.choice([(("custom", earlier), ("custom", server["date"])),
                                   (("full", server["date"]), ("incremental", server["date"])),
                                   (("incremental", server["date"]), ("full", server["date"]))])
    user, other = choice.sample(USERS, 2)
    jobs = [{"do": "job", "user": user, "date": date, "kind": kind, "sizes": [700] * choice.randint(1, 2)}
            for kind, date in (first, second, first)]
    if choice.random() < 0.3:
        jobs[2]["stop"] = choice.randint(1, 2)
    limited = [{"do": "serve", **server, "size": choice.choice([2500, 4000, 6000])},
               {"do": "job", "user": other, "date": server["date"], "kind": "full", "sizes": [700]},
               {"do": "go", "user": user, "date": "custom" if first[0] == "custom" else first[1]}]
    return [*steps[:place], {"do": "serve", **server, "size": 0}, *jobs, *limited, *steps[place:]]


def may_run_together(first, second):
    """Returns whether a job and the step after it can be played at the same time."""
    return (first["do"] == "job" and second["do"] in ("job", "go", "delete", "kill")
            and first["user"] != second.get("user") and not ("fault" in first and "fault" in second))


def together(first, second, choice):
    """Returns the step that plays both at the same time. It has the fault of either."""
    parts = [{name: value for name, value in part.items() if name != "fault"} for part in (first, second)]
    if choice.random() < 0.7:
        choice.choice(parts)["pause"] = round(choice.uniform(0, 0.05), 3)
    fault = first.get("fault") or second.get("fault")
    return {"do": "together", "parts": parts, **({"fault": fault} if fault else {})}


def with_steps_at_once(steps, choice):
    """Joins some pairs of steps, so that two commands run at the same time."""
    joined = []
    for step in steps:
        if joined and may_run_together(joined[-1], step) and choice.random() < 0.8:
            joined[-1] = together(joined[-1], step, choice)
        else:
            joined.append(step)
    return joined


def generate(seed):
    steps = with_steps_at_once(Week(seed).generate(), random.Random(f"together {seed}"))
    steps = with_rare_steps(steps, random.Random(f"rare {seed}"))
    return with_repeated_jobs(steps, random.Random(f"repeated {seed}"))
