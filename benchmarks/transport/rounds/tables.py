"""Results as tables of Markdown, which read well on a terminal, too."""

from catalogue import MEASURES, PEERS, SETTINGS


def number(value, suffix=""):
    """Three digits that count; "-" for what there is not."""
    if value is None:
        return "-"
    if value == 0:
        return "0" + suffix
    digits = 0 if abs(value) >= 100 else 1 if abs(value) >= 10 else 2
    return f"{value:,.{digits}f}{suffix}"


def _table(header, rows):
    """Aligned; the first column to the left."""
    widths = [max(len(row[column]) for row in (header, *rows)) for column in range(len(header))]
    def line(cells):
        padded = [cells[0].ljust(widths[0]), *(cell.rjust(width) for cell, width in zip(cells[1:], widths[1:]))]
        return "| " + " | ".join(padded) + " |"
    rule = "| " + "-" * widths[0] + " | " + " | ".join("-" * (width - 1) + ":" for width in widths[1:]) + " |"
    return "\n".join([line(header), rule, *map(line, rows)])


def _row(results, measure, setting, peer, columns):
    cells = [peer.title]
    for index, column in enumerate(columns):
        cells.append(number(results.median(measure.name, setting, peer.name, column.figure)))
        if index == 0:
            cells.append(number(results.ratio(measure.name, setting, peer.name, column.figure, measure.is_rate)))
        if column.figure == "cpu":
            cells.append(number(results.ratio(measure.name, setting, peer.name, "cpu")))
    return cells


def _header(columns):
    cells = ["peer"]
    for index, column in enumerate(columns):
        cells.append(column.title)
        if index == 0 or column.figure == "cpu":
            cells.append("× floor")
    return cells


def _comparison(results, measure, setting):
    peers = [peer for peer in PEERS
             if any(entry["peer"] == peer.name and entry["measure"] == measure.name and entry["setting"] == setting
                    for entry in results.entries)]
    columns = [column for index, column in enumerate(measure.columns)
               if index == 0 or any(results.median(measure.name, setting, peer.name, column.figure) is not None
                                    for peer in peers)]
    return _table(_header(columns), [_row(results, measure, setting, peer, columns) for peer in peers])


def _growth(results, measure):
    """Figures named "keys 100": a row for each kind, a column for each number."""
    found = {}
    for figures in results.figures_by_round(measure.name, "free", measure.only[0]).values():
        for name in figures:
            kind, count = name.rsplit(" ", 1)
            found.setdefault(kind, {})[int(count)] = results.median(measure.name, "free", measure.only[0], name)
    counts = sorted({count for row in found.values() for count in row})
    rows = [[kind, *(number(row[count]) if count in row else "" for count in counts)] for kind, row in found.items()]
    return _table(["of", *(f"{count:,}" for count in counts)], rows) if rows else ""


def sections(results):
    """(title, text) for each measure that was taken, setting by setting."""
    for measure in MEASURES:
        for setting in measure.settings:
            if not results.was_tried(measure.name, setting):
                continue
            title = measure.title if len(measure.settings) == 1 else f"{measure.title}: {SETTINGS[setting]}"
            text = _growth(results, measure) if measure.only else _comparison(results, measure, setting)
            if text:
                yield measure, setting, title, text


def failures(results):
    """One line for each "-" that has a reason."""
    titles = {peer.name: peer.title for peer in PEERS}
    measures = {measure.name: measure.title for measure in MEASURES}
    return [f"- {titles[peer]}, {measures[measure]}: {text}" for (measure, peer), text in results.failures().items()]


