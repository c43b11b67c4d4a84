"""Shortens a list of steps as long as the list still breaks the same promise."""


def shrink(steps, fails, budget=150):
    """Returns the shortened list. `fails(steps)` returns whether a list breaks the promise; it is called at most
    `budget` times."""
    tries = [budget]

    def still(candidate):
        tries[0] -= 1
        return tries[0] >= 0 and fails(candidate)

    steps = without_steps(steps, still)
    steps = simpler_steps(steps, still)
    return without_steps(steps, still)


def without_steps(steps, still):
    size = max(1, len(steps) // 2)
    while True:
        begin = 0
        shorter = False
        while begin < len(steps):
            candidate = steps[:begin] + steps[begin + size:]
            if candidate and still(candidate):
                steps, shorter = candidate, True
            else:
                begin += size
        if size == 1 and not shorter:
            return steps
        size = max(1, size // 2)


def simpler(step):
    """Yields simpler variants of a step."""
    for name in ("fault", "stop", "keep", "force", "token", "rescan", "pause"):
        if name in step:
            yield {key: value for key, value in step.items() if key != name}
    if len(step.get("sizes", ())) > 1:
        yield {**step, "sizes": step["sizes"][:1]}
        yield {**step, "sizes": step["sizes"][:-1]}
    if any(size != 40 for size in step.get("sizes", ())):
        yield {**step, "sizes": [40] * len(step["sizes"])}
    for number, part in enumerate(step.get("parts", ())):
        yield part
        for candidate in simpler(part):
            yield {**step, "parts": [*step["parts"][:number], candidate, *step["parts"][number + 1:]]}
    if step.get("size"):
        yield {**step, "size": 0}
    if step.get("count", "1000:1000") != "1000:1000":
        yield {**step, "count": "1000:1000"}


def simpler_steps(steps, still):
    number = 0
    while number < len(steps):
        for candidate in simpler(steps[number]):
            if still(steps[:number] + [candidate] + steps[number + 1:]):
                steps = steps[:number] + [candidate] + steps[number + 1:]
                break
        else:
            number += 1
    return steps
