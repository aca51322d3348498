#!/usr/bin/env python3
"""Writes a synthetic source tree for the index benchmark: code-like text in many files.

The tree is the same for the same arguments (a fixed seed), so runs compare. Each file is a
mix of lines drawn from a few thousand templates filled with identifiers from a vocabulary
of tens of thousands, so that the full-text index sees a realistic spread of terms.
"""
import argparse
import os
import random
import sys

LANGUAGES = [("py", 0.3), ("cpp", 0.25), ("h", 0.1), ("ts", 0.15), ("go", 0.1), ("md", 0.1)]
TEMPLATES = [
    "def {a}_{b}(self, {c}, {d}={n}):",
    "    return self.{a}.{b}({c}, {d})",
    "    if {a}_{b} is None or {c} > {n}:",
    "        raise {A}{B}Error(\"{a} {b} {c}\")",
    "for {a} in range({n}):",
    "    {a}_{b} += {c}[{n}] * {d}",
    "class {A}{B}({C}{D}):",
    "import {a}.{b} as {c}",
    "static int {a}_{b}(const {A}{B}& {c}, std::size_t {d}) {{",
    "  std::vector<{A}{B}> {c}_{d};",
    "  if ({a} != nullptr && {b}->{c}() == {n}) return {d};",
    "}}",
    "#include \"{a}/{b}_{c}.h\"",
    "export function {a}{B}({c}: {D}, {d}?: number): {A} {{",
    "  const {a} = await {b}.{c}({d}, {n});",
    "func ({a} *{A}{B}) {C}({d} int) error {{",
    "// {A} {b} {c} the {d} when {a} is {n}",
    "    # {a} {b}: {c} {d} ({n})",
    "## {A} {b} {c}",
    "",
]


def vocabulary(rng, size):
    consonants, vowels = "bcdfghklmnprstvwz", "aeiou"
    words = set()
    while len(words) < size:
        length = rng.randint(2, 4)
        words.add("".join(rng.choice(consonants) + rng.choice(vowels) for _ in range(length)))
    return sorted(words)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("root")
    parser.add_argument("--files", type=int, default=20000)
    parser.add_argument("--mib", type=float, default=200.0, help="total size, roughly")
    args = parser.parse_args()

    rng = random.Random(20261123)
    words = vocabulary(rng, 30000)
    mean_bytes = args.mib * 1024 * 1024 / args.files
    extensions = [ext for ext, _ in LANGUAGES]
    weights = [w for _, w in LANGUAGES]
    total = 0
    for i in range(args.files):
        ext = rng.choices(extensions, weights)[0]
        path = os.path.join(args.root, f"pkg{i % 97:02d}", f"mod{i % 13}", f"file{i:05d}.{ext}")
        os.makedirs(os.path.dirname(path), exist_ok=True)
        target = rng.expovariate(1 / mean_bytes)
        target = min(max(target, 200), 900 * 1024)
        lines, size = [], 0
        while size < target:
            w = rng.sample(words, 4)
            line = rng.choice(TEMPLATES).format(
                a=w[0], b=w[1], c=w[2], d=w[3], n=rng.randint(0, 9999),
                A=w[0].title(), B=w[1].title(), C=w[2].title(), D=w[3].title())
            lines.append(line)
            size += len(line) + 1
        with open(path, "w") as out:
            out.write("\n".join(lines) + "\n")
        total += size
    print(f"gen_repo: {args.files} files, {total / 1048576:.1f} MiB in {args.root}",
          file=sys.stderr)


if __name__ == "__main__":
    main()
