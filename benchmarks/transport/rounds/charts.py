"""Bar charts as SVG: what each peer costs beside the floor, on a logarithmic scale.

They are readable on light and on dark ground.
"""

import html
import math

from catalogue import FLOOR, OURS, PEERS
from tables import number

WIDTH = 760
LEFT = 180
RIGHT = 210
TOP = 46
BAR = 18
STEP = 26
# On the left of the shortest bar, in decades.
MARGIN = 0.05

STYLE = """
  text { font: 13px system-ui, sans-serif; fill: #24292f; }
  .title { font-weight: 600; }
  .axis { font-size: 11px; fill: #6e7781; }
  line { stroke: #d0d7de; }
  rect { fill: #8c959f; }
  .ours { fill: #0969da; }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3; }
    .axis { fill: #8d96a0; }
    line { stroke: #30363d; }
    rect { fill: #6e7681; }
    .ours { fill: #4493f8; }
  }
"""


def _text(x, y, words, attributes=""):
    return f'<text x="{x:.0f}" y="{y:.0f}"{attributes and " " + attributes}>{html.escape(words, quote=False)}</text>'


def _ticks(lowest, highest):
    """Between the logarithms: 1, 2 and 5 of each decade, or with many decades only 1."""
    steps = (1, 2, 5) if highest - lowest < 2.5 else (1,)
    powers = range(math.floor(lowest), math.ceil(highest) + 1)
    values = (step * 10.0**power for power in powers for step in steps)
    return [value for value in values if lowest <= math.log10(value) <= highest]


def _axis(position, lowest, highest, bottom):
    for value in _ticks(lowest, highest):
        x = position(value)
        yield f'<line x1="{x:.1f}" x2="{x:.1f}" y1="{TOP - 6}" y2="{bottom}"/>'
        yield _text(x, bottom + 16, f"{value:g}", 'class="axis" text-anchor="middle"')


def _bar(index, peer, ratio, value, unit, position):
    y = TOP + index * STEP
    start, end = sorted((position(1), position(ratio)))
    mark = ' class="ours"' if peer.name == OURS else ""
    yield _text(LEFT - 10, y + BAR - 4, peer.title, 'text-anchor="end"')
    yield f'<rect{mark} x="{start:.1f}" y="{y}" width="{max(end - start, 2):.1f}" height="{BAR}" rx="2"/>'
    yield _text(end + 6, y + BAR - 4, f"{number(ratio)} × ({number(value)}{unit})")


def chart(results, measure, setting):
    """The picture, or None when there is nothing to compare."""
    first = measure.columns[0]
    bars = []
    for peer in PEERS:
        ratio = results.ratio(measure.name, setting, peer.name, first.figure, measure.is_rate)
        if ratio is not None:
            bars.append((peer, ratio, results.median(measure.name, setting, peer.name, first.figure)))
    if not any(peer.name != FLOOR for peer, _, _ in bars):
        return None
    logarithms = [math.log10(ratio) for _, ratio, _ in bars]
    lowest = min(0, *logarithms) - MARGIN
    highest = max(1, *logarithms)

    def position(ratio):
        return LEFT + (math.log10(ratio) - lowest) / (highest - lowest) * (WIDTH - LEFT - RIGHT)

    unit = f" {first.title}" if measure.is_rate else " µs"
    bottom = TOP + len(bars) * STEP
    title = measure.title.removesuffix(", µs") + ": cost as a multiple of the floor's"
    parts = [_text(12, 22, title, 'class="title"')]
    parts += _axis(position, lowest, highest, bottom)
    for index, (peer, ratio, value) in enumerate(bars):
        parts += _bar(index, peer, ratio, value, unit, position)
    body = "\n".join(parts)
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {bottom + 28}" width="{WIDTH}" '
            f'height="{bottom + 28}" role="img">\n<style>{STYLE}</style>\n{body}\n</svg>\n')
