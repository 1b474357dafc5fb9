"""Bar charts as SVG text. The text depends on the numbers only, so a test can compare it."""
from xml.sax.saxutils import escape

WIDTH = 760
LABELS = 170  # left of the bars
VALUES = 70  # right of the longest bar
BAR, GAP, HEAD = 14, 12, 58
COLOURS = {"sondrel": "#1f6fb4", "scp": "#9aa3ab", "rsync": "#e08a2e"}
OTHER = "#6fae6f"


def _text(x, y, text, more=""):
    return f'<text x="{x}" y="{y}"{more}>{escape(text)}</text>'


def _legend(names):
    drawn, x = [], LABELS
    for name in names:
        drawn += [f'<rect x="{x}" y="34" width="10" height="10" fill="{COLOURS.get(name, OTHER)}"/>',
                  _text(x + 14, 43, name)]
        x += 34 + 7 * len(name)
    return drawn


def bar_chart(title, unit, groups):
    """The chart as text. `groups` is {label: {name of a bar: value}}, drawn from top to bottom.

    Values must be positive; each is printed after its bar, with the unit. ValueError if there is nothing to draw.
    """
    largest = max((value for bars in groups.values() for value in bars.values()), default=0)
    if largest <= 0:
        raise ValueError(f"nothing to draw for {title}")
    names = list(dict.fromkeys(name for bars in groups.values() for name in bars))
    drawn, y = [_text(8, 20, title, ' font-size="15"'), *_legend(names)], HEAD
    for label, bars in groups.items():
        drawn.append(_text(LABELS - 8, round(y + len(bars) * BAR / 2 + 4), label, ' text-anchor="end"'))
        for name, value in bars.items():
            width = round((WIDTH - LABELS - VALUES) * value / largest, 1)
            drawn += [f'<rect x="{LABELS}" y="{y}" width="{width}" height="{BAR - 2}" '
                      f'fill="{COLOURS.get(name, OTHER)}"/>',
                      _text(LABELS + width + 4, y + 10, f"{value:.3g} {unit}")]
            y += BAR
        y += GAP
    return "\n".join([f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{y}" '
                      f'viewBox="0 0 {WIDTH} {y}" font-family="sans-serif" font-size="12">',
                      f"<title>{escape(title)}</title>", f'<rect width="{WIDTH}" height="{y}" fill="white"/>',
                      *drawn, "</svg>", ""])
