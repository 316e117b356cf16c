#!/usr/bin/env python3
"""Draws Installer.png, the logo of the Vantorel installer: a package box on a blue
rounded square, with an arrow pointing into it. Standard library only.

    python3 resources/make_installer_png.py resources/Installer.png [size]
"""
import math
import struct
import sys
import zlib

SUPERSAMPLE = 4


def rounded_rect(x, y, left, top, right, bottom, radius):
    """Signed distance to a rounded rectangle (negative inside)."""
    cx = min(max(x, left + radius), right - radius)
    cy = min(max(y, top + radius), bottom - radius)
    inside = left + radius <= x <= right - radius or top + radius <= y <= bottom - radius
    d = math.hypot(x - cx, y - cy) - radius
    if inside and left <= x <= right and top <= y <= bottom:
        return -min(x - left, right - x, y - top, bottom - y)
    return d


def polygon_contains(x, y, points):
    hit = False
    j = len(points) - 1
    for i, (xi, yi) in enumerate(points):
        xj, yj = points[j]
        if (yi > y) != (yj > y) and x < (xj - xi) * (y - yi) / (yj - yi) + xi:
            hit = not hit
        j = i
    return hit


def mix(under, over, alpha):
    return tuple(u * (1 - alpha) + o * alpha for u, o in zip(under, over))


def shade(u, v):
    """Colour (r, g, b, a) at a point of the unit square."""
    colour = (0.0, 0.0, 0.0, 0.0)
    # Background: blue rounded square, lighter at the top.
    if rounded_rect(u, v, 0.04, 0.04, 0.96, 0.96, 0.2) <= 0:
        top, bottom = (0.35, 0.62, 0.95), (0.10, 0.30, 0.70)
        colour = mix(bottom, top, 1 - v) + (1.0,)
    else:
        return colour
    rgb = colour[:3]
    # Box: front face, lid and the tape across the lid.
    front = [(0.22, 0.50), (0.50, 0.62), (0.50, 0.88), (0.22, 0.76)]
    side = [(0.50, 0.62), (0.78, 0.50), (0.78, 0.76), (0.50, 0.88)]
    lid = [(0.22, 0.50), (0.50, 0.38), (0.78, 0.50), (0.50, 0.62)]
    tape = [(0.34, 0.45), (0.41, 0.42), (0.69, 0.54), (0.62, 0.57)]
    if polygon_contains(u, v, front):
        rgb = (0.93, 0.78, 0.52)
    elif polygon_contains(u, v, side):
        rgb = (0.80, 0.63, 0.38)
    elif polygon_contains(u, v, lid):
        rgb = (0.98, 0.87, 0.66)
    if polygon_contains(u, v, tape):
        rgb = (0.85, 0.70, 0.45)
    # Arrow into the box: white shaft and head.
    shaft = [(0.45, 0.10), (0.55, 0.10), (0.55, 0.30), (0.45, 0.30)]
    head = [(0.36, 0.29), (0.64, 0.29), (0.50, 0.46)]
    if polygon_contains(u, v, shaft) or polygon_contains(u, v, head):
        rgb = (1.0, 1.0, 1.0)
    return rgb + (1.0,)


def render(size):
    rows = []
    step = 1.0 / (size * SUPERSAMPLE)
    for y in range(size):
        row = bytearray([0])  # filter type None
        for x in range(size):
            acc = [0.0, 0.0, 0.0, 0.0]
            for sy in range(SUPERSAMPLE):
                for sx in range(SUPERSAMPLE):
                    u = (x * SUPERSAMPLE + sx + 0.5) * step
                    v = (y * SUPERSAMPLE + sy + 0.5) * step
                    r, g, b, a = shade(u, v)
                    acc[0] += r * a
                    acc[1] += g * a
                    acc[2] += b * a
                    acc[3] += a
            n = SUPERSAMPLE * SUPERSAMPLE
            alpha = acc[3] / n
            if alpha > 0:
                rgb = [c / acc[3] for c in acc[:3]]
            else:
                rgb = [0.0, 0.0, 0.0]
            row += bytes(int(round(c * 255)) for c in rgb + [alpha])
        rows.append(bytes(row))
    return b"".join(rows)


def chunk(kind, data):
    body = kind + data
    return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)


def write_png(path, size):
    header = struct.pack(">IIBBBBB", size, size, 8, 6, 0, 0, 0)  # 8-bit RGBA
    data = zlib.compress(render(size), 9)
    with open(path, "wb") as out:
        out.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", data) + chunk(b"IEND", b""))


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit("usage: make_installer_png.py OUTPUT.png [size]")
    write_png(sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 64)
