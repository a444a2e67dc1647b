"""Names that forgive typos: a method or record name is taken as given,
else case-insensitively when only one name matches that way; an unknown
name gets the closest known names (the same rule as the corvane command
line)."""


def distance(a, b):
    """Edits (insert, delete, replace, swap two neighbours) from a to b."""
    prev2, prev = None, list(range(len(b) + 1))
    for i in range(1, len(a) + 1):
        cur = [i] + [0] * len(b)
        for j in range(1, len(b) + 1):
            cost = 0 if a[i - 1] == b[j - 1] else 1
            cur[j] = min(prev[j] + 1, cur[j - 1] + 1, prev[j - 1] + cost)
            if i > 1 and j > 1 and a[i - 1] == b[j - 2] and a[i - 2] == b[j - 1]:
                cur[j] = min(cur[j], prev2[j - 2] + 1)
        prev2, prev = prev, cur
    return prev[len(b)]


def resolve(given, names):
    """The name meant: exact, else the only case-insensitive match; None."""
    if given in names:
        return given
    folded = [n for n in names if n.lower() == given.lower()]
    return folded[0] if len(folded) == 1 else None


def closest(given, names, limit=3):
    """Up to `limit` names closest to `given`: those fewest edits away (at
    most a third of its length, and at least 2), else those containing it."""
    g = given.lower()
    reach = max(2, len(g) // 3)
    scored = sorted((distance(g, n.lower()), n) for n in names)
    near = [n for d, n in scored if d <= reach and d == scored[0][0]] if scored else []
    if not near and len(g) >= 4:
        near = sorted(n for n in names if g in n.lower())
    return near[:limit]


def did_you_mean(given, names):
    """'did you mean A?', 'did you mean A or B?', or '' when nothing is close."""
    found = closest(given, names)
    if not found:
        return ""
    if len(found) == 1:
        return "did you mean %s?" % found[0]
    return "did you mean %s or %s?" % (", ".join(found[:-1]), found[-1])
