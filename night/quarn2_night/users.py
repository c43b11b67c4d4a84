"""The users of a night: subdirectories of a directory, a list, or the output of a command."""

import os
import subprocess

from .names import USER_RULE, is_user
from .processes import describe
from .site import Problem, clean_environment

_COMMAND_SECONDS = 300


def find_users(settings, children):
    """Returns ([(name, directory)], [(name, problem)]). An invalid name is a problem of that user only."""
    if settings.users_list is not None:
        users, problems = list(settings.users_list), []
    elif settings.users_directory is not None:
        users, problems = _checked(_subdirectories(settings.users_directory))
    else:
        users, problems = _checked(_printed(settings.users_command, children))
    skip = settings.users_skip
    return [user for user in users if user[0] not in skip], [problem for problem in problems if problem[0] not in skip]


def _subdirectories(directory):
    with os.scandir(directory) as entries:
        # Symbolic links are skipped, because the target may be any directory of the system.
        found = [(entry.name, entry.path) for entry in entries if entry.is_dir(follow_symlinks=False)]
    return sorted(entry for entry in found if entry[0] != "lost+found")


def _printed(command, children):
    process = children.start(command, stdout=subprocess.PIPE, env=clean_environment())
    try:
        output, _ = process.communicate(timeout=_COMMAND_SECONDS)
    except subprocess.TimeoutExpired:
        children.end([process])
        raise Problem(f"the command of the users, {command[0]}, ran longer than {_COMMAND_SECONDS} s") from None
    status = children.wait(process)
    if status != 0:
        raise Problem(f"the command of the users, {command[0]}, {describe(status)}")
    for line in output.decode(errors="replace").splitlines():
        if line:
            name, tab, path = line.partition("\t")
            if not tab or not path.startswith("/"):
                raise Problem(f"the command of the users, {command[0]}, printed {line!r}; "
                              "expected NAME, a tab, and an absolute directory")
            yield name, path


def _checked(found):
    users, problems = {}, []
    for name, path in found:
        if not is_user(name):
            problems.append((name, f"{name!r} cannot be backed up: {USER_RULE}"))
        elif name in users:
            problems.append((name, f"{name!r} is named twice: {users[name]!r} and {path!r}"))
        else:
            users[name] = path
    return sorted(users.items()), problems
