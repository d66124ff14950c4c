"""What the scripts that draw the pictures of the documents share: an SVG file with a background of
its own, in light colours, and in dark ones for a viewer that prefers them."""

import math
from xml.sax.saxutils import escape

STYLE = """<style>
text { font: 13px sans-serif; fill: #1f2328 } .note { font-size: 12px; fill: #59636e }
.title { font-weight: bold } .back { fill: #ffffff; stroke: #d1d9e0 }
.file { fill: #eff2f5; stroke: #818b98 } .current { fill: #ddf4ff; stroke: #0969da }
.warm { fill: #fff1e5; stroke: #bc4c00 } .group { fill: none; stroke: #818b98; stroke-dasharray: 5 4 }
.line { fill: none; stroke: #59636e } .faint { stroke: #d1d9e0 } .tip { fill: #59636e }
.line.up { stroke: #9a6700 } .tip.up, .note.up { fill: #9a6700 }
@media (prefers-color-scheme: dark) {
text { fill: #e6edf3 } .note { fill: #b7bfc8 } .back { fill: #0d1117; stroke: #3d444d }
.file { fill: #212830; stroke: #656c76 } .current { fill: #0c2d6b; stroke: #4493f8 }
.warm { fill: #4d2408; stroke: #db6d28 } .group { stroke: #656c76 }
.line { stroke: #9198a1 } .faint { stroke: #3d444d } .tip { fill: #9198a1 }
.line.up { stroke: #d29922 } .tip.up, .note.up { fill: #d29922 }
}
</style>"""


def picture(title, width, height, parts):
    """A whole file; `title` is what a reader without eyes is told."""
    head = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" '
        f'height="{height}" role="img">',
        f"<title>{escape(title)}</title>",
        STYLE,
        f'<rect class="back" x="0.5" y="0.5" width="{width - 1}" height="{height - 1}" rx="6"/>',
    ]
    return "\n".join(head + list(parts) + ["</svg>", ""])


def text(x, y, content, kind="", anchor="middle"):
    return f'<text class="{kind}" x="{x}" y="{y}" text-anchor="{anchor}">{escape(content)}</text>'


def rectangle(kind, x, y, width, height):
    return f'<rect class="{kind}" x="{x}" y="{y}" width="{width}" height="{height}" rx="4"/>'


def box(kind, x, y, width, height, *words):
    """A box with its lines in the middle, the first of them bold."""
    top = y + height / 2 + 4.5 - 8 * (len(words) - 1)
    return [rectangle(kind, x, y, width, height)] + [
        text(x + width / 2, top + 16 * row, line, "note" if row else "title")
        for row, line in enumerate(words)]


def line(points, kind="line"):
    way = " L".join(f"{x} {y}" for x, y in points)
    return f'<path class="{kind}" d="M{way}"/>'


def arrow(*points):
    """Straight from point to point, with a tip at the last one."""
    (x1, y1), (x2, y2) = points[-2:]
    turn = math.degrees(math.atan2(y2 - y1, x2 - x1))
    return [line(points), f'<path class="tip" d="M0 0 l-8 -4 v8 z" '
                          f'transform="translate({x2} {y2}) rotate({turn:.0f})"/>']
