"""A bar chart as SVG, without a library."""

from html import escape

COLOURS = ["#33658a", "#e08e45"]
LABEL, WIDTH, BAR, GAP, TOP = 250, 420, 13, 10, 58


def bars(title, groups, series):
    """`groups`: (label, one value a series; 0 has no bar). Returns: the picture as text."""
    most = max(value for _, values in groups for value in values)
    height = TOP + len(groups) * (BAR * len(series) + GAP) + 6
    width = LABEL + WIDTH + 70
    out = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
        f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12" role="img">',
        f"<title>{escape(title)}</title>",
        f'<rect width="{width}" height="{height}" fill="white"/>',
        f'<text x="10" y="20" font-size="14" font-weight="bold">{escape(title)}</text>',
    ]
    for i, name in enumerate(series):
        x = LABEL + i * 140
        out.append(f'<rect x="{x}" y="32" width="10" height="10" fill="{COLOURS[i]}"/>')
        out.append(f'<text x="{x + 15}" y="41">{escape(name)}</text>')
    y = TOP
    for label, values in groups:
        middle = y + BAR * len(values) / 2 + 4
        out.append(f'<text x="{LABEL - 8}" y="{middle}" text-anchor="end">{escape(label)}</text>')
        for i, value in enumerate(values):
            length = WIDTH * value / most
            if value:
                out.append(
                    f'<rect x="{LABEL}" y="{y}" width="{length:.1f}" height="{BAR - 1}" fill="{COLOURS[i]}"/>'
                )
                out.append(f'<text x="{LABEL + length + 5:.1f}" y="{y + BAR - 3}">{value:,.4g}</text>')
            y += BAR
        y += GAP
    out.append("</svg>")
    return "\n".join(out) + "\n"
