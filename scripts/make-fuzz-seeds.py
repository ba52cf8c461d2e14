#!/usr/bin/env python3
"""Writes the download fuzzer's seed corpus (fuzz/corpus/download) from the
demo device's dump, in the byte layout fuzz/download_fuzz_target.cpp reads."""
import json, math, os, struct, sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PDTS = ["PDT_UNSIGNED_CHAR", "PDT_BINARY_INFORMATION", "PDT_UNSIGNED_LONG", "PDT_UNSIGNED_INT",
        "PDT_KNX_FLOAT", "PDT_FLOAT", "PDT_GENERIC_20", "PDT_CHAR", "PDT_VARIABLE_LENGTH",
        "PDT_GENERIC_03"]

def knx_float(v):
    value = v * 100
    for e in range(16):
        m = value / (1 << e)
        m = int(math.floor(abs(m) + 0.5)) * (1 if m >= 0 else -1)
        if -2048 <= m <= 2047:
            raw = (e << 11) | (m & 0x7FF)
            return raw | 0x8000 if m < 0 else raw
    raise ValueError(v)

def element_bytes(pdt, v):
    if pdt in ("PDT_UNSIGNED_CHAR", "PDT_BINARY_INFORMATION"): return bytes([int(v)])
    if pdt == "PDT_UNSIGNED_INT": return struct.pack(">H", v)
    if pdt == "PDT_UNSIGNED_LONG": return struct.pack(">I", v)
    if pdt == "PDT_KNX_FLOAT": return struct.pack(">H", knx_float(v))
    raise ValueError(pdt)

def encode(dump, which, flags=0xFF, with_memory=True):
    out = bytearray([which, len(dump["interfaceObjects"]) - 1])
    for obj in dump["interfaceObjects"]:
        props = obj["properties"]
        out.append(len(props))
        for p in props:
            out.append(p["id"] - 10)
            out.append(PDTS.index(p["pdt"]))
            out.append(len(p["values"]))
            for v in p["values"]:
                out += element_bytes(p["pdt"], v)
            out.append(flags)
    cos = dump.get("coDescriptors", [])[:7]
    out.append(len(cos))
    for c in cos:
        out += struct.pack(">H", c["number"]) + bytes([1 if c["enabled"] else 0])
    out.append(0)  # appData
    if with_memory:
        memory = bytearray(dump["memory"]["size"])
        for b in dump["memory"]["blocks"]:
            t = b["text"].encode()
            memory[b["address"]:b["address"] + len(t)] = t
        out += memory
    return bytes(out)

def main():
    dump = json.load(open(os.path.join(ROOT, "examples/demo/demo-download.json")))
    target = os.path.join(ROOT, "fuzz/corpus/download")
    os.makedirs(target, exist_ok=True)
    seeds = {
        "demo-script-demo-data": encode(dump, 0),
        "all-types-script-demo-data": encode(dump, 1),
        "demo-no-memory": encode(dump, 0, with_memory=False),
        "demo-unreadable": encode(dump, 0, flags=0xF0),
        "demo-no-counts": encode(dump, 1, flags=0x0F),
        "empty": b"",
    }
    for name, data in seeds.items():
        with open(os.path.join(target, name), "wb") as f:
            f.write(data)
    print(f"wrote {len(seeds)} seeds to {target}")

if __name__ == "__main__":
    sys.exit(main())
