# Prints the parts python-multipart finds in a multipart body, fed in small pieces: one JSON line per
# part, [name, filename, data in hex]; exits 1 on a parser error or a body cut short.
import json, sys
from multipart.multipart import MultipartParser, parse_options_header

content_type, path = sys.argv[1:]
_, params = parse_options_header(content_type)
parts, header, ended = [], [b"", b""], []


def header_end():
    if header[0].lower() == b"content-disposition":
        _, disposition = parse_options_header(header[1])
        parts[-1][:2] = [disposition.get(b"name", b"").decode(), disposition.get(b"filename", b"").decode()]
    header[:] = [b"", b""]


parser = MultipartParser(params[b"boundary"], {
    "on_part_begin": lambda: parts.append(["", "", bytearray()]),
    "on_header_field": lambda d, s, e: header.__setitem__(0, header[0] + d[s:e]),
    "on_header_value": lambda d, s, e: header.__setitem__(1, header[1] + d[s:e]),
    "on_header_end": header_end,
    "on_part_data": lambda d, s, e: parts[-1][2].extend(d[s:e]),
    "on_end": lambda: ended.append(True)})
body = open(path, "rb").read()
at, n = 0, 1
while at < len(body):
    parser.write(body[at:at + n])
    at, n = at + n, n % 997 + 1
parser.finalize()
if not ended:
    sys.exit("body cut short")
for name, filename, data in parts:
    print(json.dumps([name, filename, data.hex()], ensure_ascii=False, separators=(",", ":")))
