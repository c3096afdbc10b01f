"""Unpacks the first method of Rob Northen's compression, in which a game keeps its sentences.

After a header of 18 bytes, the data is a stream of bits in words of 16, the lowest first, with whole bytes between
them: chunks of three tables of Huffman codes and then, in turn, bytes as they are and copies of what was
unpacked before.
"""

SIGNATURE = b"RNC\1"
HEADER = 18


class Bits:
    """The bits of `data`, and the bytes behind the word that was begun."""

    def __init__(self, data):
        self.data = data + b"\0\0\0\0"
        self.at, self.held, self.count = HEADER, int.from_bytes(data[HEADER:HEADER + 2], "little"), 16
        self.take(2)

    def word(self):
        self.held |= (self.data[self.at] | self.data[self.at + 1] << 8) << self.count
        self.count += 16

    def take(self, count):
        value = self.held & (1 << count) - 1
        self.held >>= count
        self.count -= count
        if self.count < 16:
            self.at += 2
            self.word()
        return value

    def bytes(self, count):
        """`count` bytes; they stand where the last word was taken, which comes after them."""
        found = self.data[self.at:self.at + count]
        self.at += count
        self.count -= 16
        self.held &= (1 << self.count) - 1
        self.word()
        return found

    def table(self):
        """For each sequence of as many bits as the longest code has: the length of the code in front, its value."""
        lengths = [self.take(4) for _ in range(self.take(5))]
        longest, code = max(lengths, default=0), 0
        table = [(0, 0)] * (1 << longest)
        for length in range(1, longest + 1):
            for value in (v for v, other in enumerate(lengths) if other == length):
                first = int(format(code, f"0{length}b")[::-1], 2)
                table[first::1 << length] = [(length, value)] * (1 << longest - length)
                code += 1
            code <<= 1
        return table

    def number(self, table):
        length, value = table[self.held & len(table) - 1]
        self.take(length)
        return value if value < 2 else 1 << value - 1 | self.take(value - 1)


def unpack(data):
    size, bits, out = int.from_bytes(data[4:8], "big"), Bits(data), bytearray()
    while len(out) < size:
        plain, distances, lengths = bits.table(), bits.table(), bits.table()
        for remaining in range(bits.take(16), 0, -1):
            count = bits.number(plain)
            if count:
                out += bits.bytes(count)
            if remaining > 1:
                distance, count = bits.number(distances) + 1, bits.number(lengths) + 2
                found = out[-distance:][:count]
                out += (found * (count // len(found) + 1))[:count]
    return bytes(out)
