"""The table's lines, and the medians and percentiles that it and the picture show."""

import statistics

from subjects import SUBJECTS

DIVISORS = {"us": 1e3, "ms": 1e6}
TITLE = 34


def p99(samples):
    ordered = sorted(samples)
    return ordered[min(len(ordered) - 1, int(len(ordered) * 0.99))]


def summary(figure):
    """Median and 99th percentile in ns by subject."""
    return {subject: (statistics.median(samples), p99(samples)) for subject, samples in figure.taken.items()}


def ratio(values):
    return values["daemon"][0] / values["floor"][0]


def head():
    columns = "".join(f"{subject:>10} {'p99':>8}" + (f" {'ratio':>6}" if subject == "floor" else "")
                      for subject in SUBJECTS)
    return f"{'':<{TITLE}} {'samples':>8} {'':>2}{columns}"


def line(figure):
    values, divisor = summary(figure), DIVISORS[figure.unit]
    text = f"{figure.title:<{TITLE}} {len(figure.taken['daemon']):>8} {figure.unit:>2}"
    for subject in SUBJECTS:
        shown = [f"{value / divisor:.1f}" for value in values.get(subject, ())] or ["-", ""]
        text += f"{shown[0]:>10} {shown[1]:>8}"
        if subject == "floor":
            text += f" {ratio(values):>6.2f}"
    return text.rstrip()


def idle_line(title, texts):
    text = f"{title:<{TITLE}} {'':>8} {'':>2}"
    for subject, shown in zip(SUBJECTS, texts):
        text += f"{shown:>10} {'':>8}" + (f" {'':>6}" if subject == "floor" else "")
    return text.rstrip()
