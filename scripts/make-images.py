#!/usr/bin/env python3
"""Draws the program's shipped bitmaps: the banner and the hourglass icons.

The images are committed; run this again only to change them:
    python3 scripts/make-images.py data
"""
import struct
import sys

def write_bmp(path, width, height, pixel):
    """pixel(x, y) -> (r, g, b), y from the top."""
    stride = (width * 3 + 3) & ~3
    rows = []
    for y in range(height - 1, -1, -1):
        row = bytearray()
        for x in range(width):
            r, g, b = pixel(x, y)
            row += bytes((b, g, r))
        row += b"\0" * (stride - width * 3)
        rows.append(bytes(row))
    data = b"".join(rows)
    header = struct.pack("<2sIHHI", b"BM", 54 + len(data), 0, 0, 54)
    info = struct.pack("<IiiHHIIiiII", 40, width, height, 1, 24, 0, len(data), 2835, 2835, 0, 0)
    with open(path, "wb") as f:
        f.write(header + info + data)

# A 5x7 pixel font for the few letters the banner needs.
GLYPHS = {
    "V": ["10001", "10001", "10001", "10001", "10001", "01010", "00100"],
    "E": ["11111", "10000", "10000", "11110", "10000", "10000", "11111"],
    "L": ["10000", "10000", "10000", "10000", "10000", "10000", "11111"],
    "M": ["10001", "11011", "10101", "10101", "10001", "10001", "10001"],
    "A": ["01110", "10001", "10001", "11111", "10001", "10001", "10001"],
    "R": ["11110", "10001", "10001", "11110", "10100", "10010", "10001"],
    "4": ["00010", "00110", "01010", "10010", "11111", "00010", "00010"],
    "1": ["00100", "01100", "00100", "00100", "00100", "00100", "01110"],
    ".": ["00000", "00000", "00000", "00000", "00000", "01100", "01100"],
    " ": ["00000"] * 7,
}

def text_mask(text, scale):
    width = len(text) * 6 * scale
    def on(x, y):
        if y < 0 or y >= 7 * scale or x < 0 or x >= width:
            return False
        ch, cx = divmod(x // scale, 6)
        if cx == 5:
            return False
        return GLYPHS[text[ch]][y // scale][cx] == "1"
    return on, width, 7 * scale

def banner(path):
    w, h = 420, 220
    title, tw, th = text_mask("VELMAR", 9)
    version, vw, vh = text_mask("4.1.4", 3)
    tx, ty = (w - tw) // 2, 52
    vx, vy = (w - vw) // 2, 150
    def pixel(x, y):
        if x < 3 or y < 3 or x >= w - 3 or y >= h - 3:
            return (20, 40, 90)
        if title(x - tx, y - ty):
            return (250, 250, 255)
        if title(x - tx - 3, y - ty - 3):
            return (10, 25, 60)
        if version(x - vx, y - vy):
            return (200, 215, 240)
        t = y / h
        return (int(40 + 30 * t), int(80 + 40 * t), int(160 + 50 * t))
    write_bmp(path, w, h, pixel)

def hourglass(path, fill_top, fill_bottom, tilt):
    """A 32x32 hourglass; fill_* in 0..1 give the sand in each bulb."""
    size = 32
    def pixel(x, y):
        bg = (192, 192, 192)
        cx = 16 + (tilt * (y - 16)) // 16
        if y in (2, 3, 28, 29) and 6 <= x <= 25:
            return (90, 60, 30)
        if 4 <= y <= 27:
            half = abs(y - 15.5)
            reach = 1 + half * 0.75
            if abs(x - cx) <= reach:
                if abs(abs(x - cx) - reach) < 1:
                    return (40, 40, 40)
                top_sand = y < 16 and y >= 16 - 12 * fill_top
                bottom_sand = y >= 16 and y >= 28 - 12 * fill_bottom
                if top_sand or bottom_sand:
                    return (220, 180, 60)
                return (235, 240, 250)
        return bg
    write_bmp(path, size, size, pixel)

def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "data"
    banner(f"{out}/banner.bmp")
    frames = {
        9251: (1.0, 0.0, 0),   # idle
        9356: (0.9, 0.1, 0),
        9357: (0.7, 0.3, 0),
        9254: (0.5, 0.5, 2),
        9355: (0.3, 0.7, 0),
        9253: (0.15, 0.85, -2),
        9252: (0.0, 1.0, 0),
        9000: (0.6, 0.4, 0),   # the application's icon
    }
    for rid, (top, bottom, tilt) in frames.items():
        hourglass(f"{out}/icons/{rid}.bmp", top, bottom, tilt)

if __name__ == "__main__":
    main()
