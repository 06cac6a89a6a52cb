"""The section of docs/performance.md that is made of results, and its pictures."""

import charts
import tables

BEGIN = "<!-- What follows is written by scripts/bench --update-docs. -->"
END = "<!-- End of what scripts/bench writes. -->"
# What is shown as a picture, free-running.
PICTURES = ("round-trip", "flood", "outstanding", "data-1M", "life")


def describe(machine):
    rounds = machine["rounds"]
    return (f"{rounds} round{'s' if rounds > 1 else ''} of {machine['seconds']:g} s for each measure, on "
            f"{machine['processors']} processors ({machine['model']}), Linux {machine['kernel']}.")


def render(results, machine, picture):
    """The text; picture(measure, setting) gives the name of a file or None."""
    parts = [describe(machine)]
    for measure, setting, title, text in tables.sections(results):
        parts.append(f"### {title}")
        name = picture(measure, setting)
        if name:
            parts.append(f"![{measure.title}, beside the floor]({name})")
        parts.append(text)
    reasons = tables.failures(results)
    if reasons:
        parts += ["### What is not there", "\n".join(reasons)]
    return "\n\n".join(parts) + "\n"


def update(folder, results, machine):
    """Rewrites the section in folder/performance.md, and the pictures beside it. Returns what was written."""
    written = []

    def picture(measure, setting):
        drawn = charts.chart(results, measure, setting) if setting == "free" and measure.name in PICTURES else None
        if drawn is None:
            return None
        name = f"transport-{measure.name}.svg"
        (folder / name).write_text(drawn, encoding="utf-8")
        written.append(name)
        return name

    document = folder / "performance.md"
    text = document.read_text(encoding="utf-8")
    before, _, rest = text.partition(BEGIN)
    _, end, after = rest.partition(END)
    if not end:
        raise SystemExit(f"{document}: there is no section to write")
    section = render(results, machine, picture)
    document.write_text(f"{before}{BEGIN}\n\n{section}\n{END}{after}", encoding="utf-8")
    return [document.name, *written]
