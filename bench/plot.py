"""Line plots as SVG, on logarithmic axes: how cost grows."""

import math


def ticks(low, high):
    return [10.0 ** power for power in range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1)]


def label(value):
    return f"{value:,.0f}" if value >= 1 else f"{value:g}"


def draw(path, title, x_name, series):
    """`series` maps a name to points (count, milliseconds), all above zero."""
    width, height, left, right, top, bottom = 720, 420, 80, 24, 48, 52
    points = [point for line in series.values() for point in line]
    xs, ys = (ticks(min(p[axis] for p in points), max(p[axis] for p in points)) for axis in (0, 1))

    def place(value, marks, start, end):
        low, high = math.log10(marks[0]), math.log10(marks[-1])
        return start + (math.log10(value) - low) / (high - low) * (end - start)

    at = lambda x, y: (place(x, xs, left, width - right), place(y, ys, height - bottom, top))
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" font-family="sans-serif" '
           f'font-size="13"><rect width="{width}" height="{height}" fill="white"/>',
           f'<text x="{left}" y="26" font-size="16">{title}</text>']
    for x in xs:
        across, _ = at(x, ys[0])
        out.append(f'<path d="M{across:.1f} {top}V{height - bottom}" stroke="#ddd"/><text x="{across:.1f}" '
                   f'y="{height - bottom + 18}" text-anchor="middle">{label(x)}</text>')
    for y in ys:
        _, down = at(xs[0], y)
        out.append(f'<path d="M{left} {down:.1f}H{width - right}" stroke="#ddd"/><text x="{left - 6}" '
                   f'y="{down + 4:.1f}" text-anchor="end">{label(y)} ms</text>')
    out.append(f'<text x="{(left + width - right) / 2}" y="{height - 12}" text-anchor="middle">{x_name}</text>')
    for number, (name, line) in enumerate(series.items()):
        color = ("#0b5cad", "#c2410c", "#15803d")[number]
        places = [at(x, y) for x, y in line]
        out.append(f'<polyline points="{" ".join(f"{x:.1f},{y:.1f}" for x, y in places)}" fill="none" '
                   f'stroke="{color}" stroke-width="2"/>')
        out += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{color}"/>' for x, y in places]
        out.append(f'<text x="{left + 12}" y="{top + 18 + 18 * number}" fill="{color}">{name}</text>')
    path.write_text("\n".join(out) + "\n</svg>\n")
