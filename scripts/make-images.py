#!/usr/bin/env python3
"""Draws the program's shipped bitmaps: the banner, the hourglass icons and
the toolbar's pictures.

The images are committed; run this again only to change them:
    python3 scripts/make-images.py data
"""
import math
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

# ---------------------------------------------------------------------------
# The toolbar's pictures. Each is a list of layers (shape, colour) painted in
# order; a shape is a signed distance function (negative inside), so outlines
# come from insetting a shape by the line width. Four by four samples a pixel
# give soft edges; edges on whole coordinates stay sharp.

PICTURE_SIZE = 20
SAMPLES = 4
DARK = (40, 40, 48)
WHITE = (255, 255, 255)
BLUE = (55, 115, 205)
GREEN = (55, 155, 65)
GREY_TEXT = (150, 150, 160)


def write_bmp_alpha(path, width, height, pixels):
    """pixels: rows top first of (r, g, b, a), alpha not premultiplied.

    A 32-bit bitmap with a V4 header whose bit fields name the alpha channel.
    """
    rows = []
    for y in range(height - 1, -1, -1):
        rows.append(b"".join(bytes((b, g, r, a)) for r, g, b, a in pixels[y]))
    data = b"".join(rows)
    offset = 14 + 108
    header = struct.pack("<2sIHHI", b"BM", offset + len(data), 0, 0, offset)
    info = struct.pack("<IiiHHIIiiII", 108, width, height, 1, 32, 3, len(data), 2835, 2835, 0, 0)
    masks = struct.pack("<IIII", 0x00FF0000, 0x0000FF00, 0x000000FF, 0xFF000000)
    colour_space = struct.pack("<I", 0x73524742) + b"\0" * 36 + struct.pack("<III", 0, 0, 0)  # sRGB
    with open(path, "wb") as f:
        f.write(header + info + masks + colour_space + data)


def render(layers, size):
    out = []
    step = 1.0 / SAMPLES
    for y in range(size):
        row = []
        for x in range(size):
            n = r = g = b = 0
            for sy in range(SAMPLES):
                for sx in range(SAMPLES):
                    px, py = x + (sx + 0.5) * step, y + (sy + 0.5) * step
                    colour = None
                    for shape, c in layers:
                        if shape(px, py) <= 0:
                            colour = c
                    if colour:
                        n += 1
                        r += colour[0]
                        g += colour[1]
                        b += colour[2]
            total = SAMPLES * SAMPLES
            if n == 0:
                row.append((0, 0, 0, 0))
            else:
                row.append(((2 * r + n) // (2 * n), (2 * g + n) // (2 * n), (2 * b + n) // (2 * n),
                            (2 * 255 * n + total) // (2 * total)))
        out.append(row)
    return out


def seg_dist(px, py, ax, ay, bx, by):
    dx, dy = bx - ax, by - ay
    length = dx * dx + dy * dy
    t = 0.0 if length == 0 else max(0.0, min(1.0, ((px - ax) * dx + (py - ay) * dy) / length))
    return math.hypot(px - ax - t * dx, py - ay - t * dy)


def poly(points):
    edges = list(zip(points, points[1:] + points[:1]))

    def f(px, py):
        d = min(seg_dist(px, py, a[0], a[1], b[0], b[1]) for a, b in edges)
        inside = False
        for (ax, ay), (bx, by) in edges:
            if (ay > py) != (by > py) and px < ax + (py - ay) * (bx - ax) / (by - ay):
                inside = not inside
        return -d if inside else d
    return f


def rect(x0, y0, x1, y1):
    return poly([(x0, y0), (x1, y0), (x1, y1), (x0, y1)])


def line(points, r):
    segs = list(zip(points, points[1:]))
    return lambda px, py: min(seg_dist(px, py, a[0], a[1], b[0], b[1]) for a, b in segs) - r


def circle(cx, cy, r):
    return lambda px, py: math.hypot(px - cx, py - cy) - r


def arc(cx, cy, r, a0, a1, n=24):
    """Points on a circle from angle a0 to a1 in degrees, y down."""
    return [(cx + r * math.cos(math.radians(a0 + (a1 - a0) * i / n)),
             cy + r * math.sin(math.radians(a0 + (a1 - a0) * i / n))) for i in range(n + 1)]


def star(cx, cy, outer, inner):
    pts = []
    for i in range(10):
        rad = outer if i % 2 == 0 else inner
        a = math.radians(-90 + 36 * i)
        pts.append((cx + rad * math.cos(a), cy + rad * math.sin(a)))
    return poly(pts)


def union(*shapes):
    return lambda px, py: min(s(px, py) for s in shapes)


def mirror_x(shape):
    return lambda px, py: shape(PICTURE_SIZE - px, py)


def mirror_y(shape):
    return lambda px, py: shape(px, PICTURE_SIZE - py)


def outlined(shape, fill, width=1.0, ink=DARK):
    return [(shape, ink), (lambda px, py: shape(px, py) + width, fill)]


def reply_arrow(dx=0.0):
    """A head pointing left and a shaft that bends down to the right."""
    head = poly([(1 + dx, 8), (8 + dx, 1.5), (8 + dx, 14.5)])
    shaft = line(arc(7 + dx, 17, 9, -90, 0), 2.5)
    return union(head, shaft)


def sheet_new():
    layers = outlined(poly([(3, 2), (13, 2), (17, 6), (17, 19), (3, 19)]), WHITE)
    for y in (10.5, 13.5, 16.5):
        layers.append((line([(6, y), (14, y)], 0.5), GREY_TEXT))
    return layers + outlined(star(14.5, 5.5, 5.4, 2.4), (255, 205, 40), ink=(165, 110, 0))


def reply_all():
    rear = poly([(0.5, 8), (6.5, 2), (6.5, 14)])
    front = union(poly([(5, 8), (11, 2), (11, 14)]), line(arc(10, 16.5, 7.5, -90, 0), 2.5))
    return outlined(rear, BLUE) + outlined(front, BLUE)


def up_arrow():
    return poly([(10, 1.5), (18, 9.5), (13, 9.5), (13, 18.5), (7, 18.5), (7, 9.5), (2, 9.5)])


def check_mail():
    layers = outlined(rect(1, 3, 15, 14), WHITE)
    layers.append((line([(1.5, 3.5), (8, 9.5), (14.5, 3.5)], 0.6), DARK))
    down = poly([(13, 7), (17, 7), (17, 12), (19.5, 12), (15, 18.5), (10.5, 12), (13, 12)])
    return layers + outlined(down, GREEN)


def send_queue():
    tray = poly([(1, 10), (6, 10), (7, 13), (13, 13), (14, 10), (19, 10), (19, 18), (1, 18)])
    up = poly([(10, 1), (15.5, 6.5), (12, 6.5), (12, 12), (8, 12), (8, 6.5), (4.5, 6.5)])
    return outlined(tray, (205, 175, 115)) + outlined(up, BLUE)


def books():
    layers = outlined(rect(4, 3, 18, 19), (140, 40, 40))
    layers.append((rect(5, 15, 17, 18), WHITE))
    layers += outlined(rect(3, 1, 16, 16), (195, 60, 55))
    layers.append((line([(5.5, 1.5), (5.5, 15.5)], 0.5), (120, 30, 30)))
    layers += outlined(rect(8, 4, 14, 8), (245, 225, 185), ink=(120, 30, 30))
    return layers


def printer():
    layers = outlined(rect(5, 1, 15, 8), WHITE)
    layers += outlined(rect(1, 7, 19, 15), (175, 175, 185))
    layers += outlined(rect(5, 12, 15, 19), WHITE)
    for y in (15.5, 17.5):
        layers.append((line([(7, y), (13, y)], 0.5), GREY_TEXT))
    layers.append((circle(16.5, 9.5, 1.1), (60, 200, 60)))
    return layers


def plug(apart):
    """A plug in its socket, or pulled out of it with the prongs bare."""
    body = (205, 95, 75) if apart else GREEN
    plug_right = 7 if apart else 9
    socket_left = 12 if apart else 9
    layers = [(line([(0, 10), (2, 10)], 1.5), DARK), (line([(socket_left + 7, 10), (20, 10)], 1.5), DARK)]
    if apart:
        for y in (7, 12):
            layers.append((rect(plug_right, y, plug_right + 4, y + 2), (150, 120, 40)))
    layers += outlined(rect(1, 6, plug_right, 14), body)
    layers += outlined(rect(socket_left, 5, socket_left + 6, 15), body)
    if apart:
        for y in (7, 12):
            layers.append((rect(socket_left + 2, y, socket_left + 4, y + 1), DARK))
    return layers


def app_icon():
    """32x32: a letter in its envelope, the flap blue."""
    layers = outlined(rect(2, 7, 30, 26), WHITE, 1.4)
    layers += outlined(poly([(2.6, 7.6), (16, 18), (29.4, 7.6)]), BLUE, 1.2)
    layers.append((line([(2.8, 25.2), (12.5, 16.5)], 0.55), DARK))
    layers.append((line([(29.2, 25.2), (19.5, 16.5)], 0.55), DARK))
    return layers


def toolbar_pictures():
    return {
        9500: sheet_new(),                                          # New
        9501: outlined(reply_arrow(), BLUE),                        # Reply
        9502: reply_all(),                                          # Reply All
        9503: outlined(mirror_x(reply_arrow()), GREEN),             # Forward
        9504: outlined(union(line([(4, 4), (16, 16)], 2.3), line([(16, 4), (4, 16)], 2.3)),
                       (215, 50, 45)),                              # Delete
        9505: outlined(up_arrow(), (40, 140, 155)),                 # Previous
        9506: outlined(mirror_y(up_arrow()), (40, 140, 155)),       # Next
        9507: check_mail(),                                         # Check
        9508: send_queue(),                                         # Send Queue
        9509: books(),                                              # Books
        9510: printer(),                                            # Print
        9511: plug(False),                                          # Online
        9512: plug(True),                                           # Offline
    }


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
    }
    for rid, (top, bottom, tilt) in frames.items():
        hourglass(f"{out}/icons/{rid}.bmp", top, bottom, tilt)
    write_bmp_alpha(f"{out}/icons/9000.bmp", 32, 32, render(app_icon(), 32))  # the application's
    for rid, layers in toolbar_pictures().items():
        write_bmp_alpha(f"{out}/icons/{rid}.bmp", PICTURE_SIZE, PICTURE_SIZE, render(layers, PICTURE_SIZE))

if __name__ == "__main__":
    main()
