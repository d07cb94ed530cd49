"""A picture to upload."""
import struct
import zlib


def png(width=320, height=200):
    """A coloured gradient, the same each time."""
    def chunk(kind, data):
        return (struct.pack(">I", len(data)) + kind + data
                + struct.pack(">I", zlib.crc32(kind + data)))
    rows = b"".join(b"\0" + bytes(value for x in range(width)
                                  for value in (x * 255 // width, y * 255 // height, (x ^ y) & 255))
                    for y in range(height))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(rows, 6)) + chunk(b"IEND", b""))
