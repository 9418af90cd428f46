#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Do the schema for editors and the reader of scenarios accept and refuse the same documents?

The documents are made from the schema: wherever it describes a value, each wrong kind stands there, each
limit with its neighbours, each word and none of them, each key alone, two keys together, one that is
unknown and one that is missing. Both then judge each document.
"""

import itertools
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest

try:
    import jsonschema
except ImportError:
    print("skipped: there is no jsonschema (Debian's python3-jsonschema)")
    sys.exit(77)

SIM = os.environ["SVCMGR_SIM"]
with open(os.environ["SCENARIO_SCHEMA"], encoding="utf-8") as schema_file:
    SCHEMA = json.load(schema_file)
SHIPPED = os.environ["SHIPPED_SCENARIOS"]

# What a schema cannot say: each of these the reader alone refuses.
READER_ALONE = [
    r"there is a model \".*\" already",
    r"there is a package \".*\" already",
    r"\"available\" names the installed version",
    r"must not be longer than 2048 bytes",  # characters that take several bytes
    r"would end inside a character",
    r"takes \d+ bytes: a message holds",
    r"cannot read the file",
]

WRONG_KINDS = [None, True, False, 0, 1, -1, 1.5, 2.0, 2**31, -(2**31) - 1, "", "x", [], {}]
TEXTS = ["", "a", "a b", ".a", "-a", "_a", "a.b", "a*?", "a+~", "é", "a\u0000b", "a/b", "../a", "A1",
         "50%", *("x" * n for n in (50, 51, 200, 201, 2048, 2049)), "é" * 1024, "é" * 1025]
# Where a value must be one that the schema does not tell.
SAMPLES = {"/agent/licenceFile": "licence.txt", "/repository": "/repository"}

_resolved = {}


def resolve(schema):
    """The schema with what it refers to, and what all of its parts say, in one."""
    if isinstance(schema, bool):
        return {}
    merged = dict(schema)
    for part in [schema] if "$ref" in schema else schema.get("allOf", []):
        name = part.get("$ref", "").rpartition("/")[2]
        if name in ("cuts",):
            continue
        if name:
            base = resolve(SCHEMA["definitions"][name])
            properties = {**base.get("properties", {})}
            for key, more in merged.get("properties", {}).items():
                properties[key] = {**properties.get(key, {}), **more}
            merged = {**base, **merged, **({"properties": properties} if properties else {})}
            merged.setdefault("name", name)
    return merged


def limits(schema):
    found = set()
    for key in ("minimum", "maximum"):
        if key in schema:
            found |= {schema[key] - 1, schema[key], schema[key] + 1, float(schema[key])}
    return sorted(found)


def sample(schema, pointer=""):
    """A value that is right."""
    if pointer in SAMPLES:
        return SAMPLES[pointer]
    schema = resolve(schema)
    if "enum" in schema:
        return schema["enum"][-1]
    if "anyOf" in schema and "type" not in schema:
        return sample(schema["anyOf"][0], pointer)
    kind = schema["type"]
    if kind == "object":
        value = {key: sample(schema["properties"][key], f"{pointer}/{key}")
                 for key in schema.get("required", [])}
        if "oneOf" in schema:
            key = schema["oneOf"][0]["required"][0]
            value[key] = sample(schema["properties"][key], f"{pointer}/{key}")
        return value
    if kind == "array":
        least = schema.get("minItems", 1 if pointer.endswith("/versions") else 0)
        return [sample(schema["items"], f"{pointer}/0")] * least
    return {"string": "a", "boolean": True, "integer": max(1, schema.get("minimum", 1)),
            "number": 1}[kind]


class Corpus:
    def __init__(self):
        self.documents = {}  # as JSON; the pointers of what was changed
        self.objects = {}  # pointer of each object with keys of its own, and those keys
        self.limits = {}  # pointer of each number, and its limits
        self.words = {}  # pointer of each word, and which it may be
        self.explored = set()

    def explore(self, schema, pointer, wrap):
        """Adds documents that differ in the value at the pointer, which `wrap` puts there."""
        schema = resolve(schema)
        self.put(pointer, wrap, [sample(schema, pointer), *WRONG_KINDS])
        if schema.get("type") == "integer":
            self.limits[pointer] = (schema["minimum"], schema["maximum"])
        if "enum" in schema:
            self.words[pointer] = schema["enum"]
            self.put(pointer, wrap, ["nope"])
        known = json.dumps(schema)
        if schema.get("type") in ("object", "array") and known in self.explored:
            return  # deeper, it is the same as where it was seen first
        self.explored.add(known)
        self.put(pointer, wrap, limits(schema) + schema.get("enum", []))
        for alternative in schema.get("anyOf", []):
            if {"type", "$ref", "allOf"} & set(alternative):  # others say more of the same value
                self.explore(alternative, pointer, wrap)
        if schema.get("type") == "string":
            self.put(pointer, wrap, TEXTS)
        if schema.get("type") == "array":
            self.explore_array(schema, pointer, wrap)
        if schema.get("type") == "object":
            self.explore_object(schema, pointer, wrap)

    def put(self, pointer, wrap, values):
        for value in values:
            self.documents.setdefault(json.dumps(wrap(value)), set()).add(pointer)

    def explore_array(self, schema, pointer, wrap):
        element = sample(schema["items"], f"{pointer}/0")
        most = schema.get("maxItems", 2)
        self.put(pointer, wrap, [[], [element], [element] * most, [element] * (most + 1)])
        self.explore(schema["items"], f"{pointer}/0", lambda value: wrap([value]))

    def explore_object(self, schema, pointer, wrap):
        right = sample(schema, pointer)
        properties = schema.get("properties", {})
        if "propertyNames" in schema:
            values = schema["additionalProperties"]
            for key in TEXTS:
                self.put(pointer, wrap, [{key: sample(values)}])
            self.explore(values, f"{pointer}/a", lambda value: wrap({"a": value}))
            return
        self.objects[pointer] = set(properties)
        self.put(pointer, wrap, [{**right, "?": 1}])
        self.put(pointer, wrap, [{k: v for k, v in right.items() if k != key} for key in right])
        samples = {key: self.samples(schema, pointer, key) for key in properties}
        for one, other in itertools.combinations_with_replacement(properties, 2):
            for first, second in itertools.product(samples[one], samples[other]):
                self.put(pointer, wrap, [{**right, one: first, other: second},
                                         {one: first, other: second}])
        alone = [each["required"][0] for each in schema.get("oneOf", [])]
        alone += schema.get("dependencies", {})
        for key, value in properties.items():
            keep = {} if key in alone else right
            beside = companions(schema, key)
            self.explore(value, f"{pointer}/{key}",
                         lambda inner, key=key: wrap({**keep, **beside, key: inner}))

    def samples(self, schema, pointer, key):
        """Right values of a key: all words of a few, since others may depend on which it is."""
        value = schema["properties"][key]
        return resolve(value).get("enum") or [sample(value, f"{pointer}/{key}")]


def companions(schema, key):
    """What has to stand beside a key."""
    if key == "cutAt":
        return {"fault": "cut"}
    needed = schema.get("dependencies", {}).get(key, [])
    if isinstance(needed, list):
        return {each: sample(schema["properties"][each]) for each in needed}
    return {each: value["const"] for each, value in needed["properties"].items()}


def complaints(documents, folder):
    """What the reader says of each document, by its index."""
    found = {}
    files = {f"{index}.json": document for index, document in enumerate(documents)}
    for name, content in {**files, "licence.txt": "A licence."}.items():
        with open(os.path.join(folder, name), "w", encoding="utf-8") as file:
            file.write(content)
    for begin in range(0, len(documents), 1000):
        names = [f"{index}.json" for index in range(begin, min(begin + 1000, len(documents)))]
        run = subprocess.run([SIM, "check", *names], cwd=folder, stderr=subprocess.PIPE,
                             encoding="utf-8", check=False)
        if run.returncode not in (0, 1):
            raise RuntimeError(run.stderr)
        for line in run.stderr.splitlines():
            name, _, reason = line.partition(".json:")
            found.setdefault(int(name), []).append(reason)
    return found


class TheSchema(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.validator = jsonschema.Draft7Validator(SCHEMA)
        cls.corpus = Corpus()
        cls.corpus.explore(SCHEMA, "", lambda value: value)
        for extra in EXTRA:
            cls.corpus.documents.setdefault(json.dumps(extra), set())
        cls.documents = list(cls.corpus.documents)
        cls.pointers = list(cls.corpus.documents.values())
        with tempfile.TemporaryDirectory() as folder:
            cls.refused = complaints(cls.documents, folder)

    def test_is_a_schema(self):
        jsonschema.Draft7Validator.check_schema(SCHEMA)

    def test_accepts_and_refuses_what_the_reader_does(self):
        seen = set()
        for index, document in enumerate(self.documents):
            accepted = self.validator.is_valid(json.loads(document))
            reasons = self.refused.get(index, [])
            if accepted and reasons:
                alone = [rule for reason in reasons for rule in READER_ALONE
                         if re.search(rule, reason)]
                self.assertEqual(len(alone), len(reasons), f"{document[:500]}: {reasons}")
                seen |= set(alone)
            else:
                self.assertEqual(accepted, not reasons, f"{document[:500]}: {reasons}")
        self.assertEqual(seen, set(READER_ALONE), "each rule of the reader alone has its document")

    def test_knows_the_keys_that_the_reader_knows(self):
        told = {}
        for index, document in enumerate(self.documents):
            for reason in self.refused.get(index, []):
                match = re.search(r"^\d+:\d+: (\S*)/\?: unknown key \"\?\"; allowed here: (.*)", reason)
                if match:
                    told[match[1]] = set(match[2].split(", "))
        self.assertEqual(told, self.corpus.objects)

    def tell(self, pattern):
        """What the reader says of values, by their pointers."""
        told = {}
        for reasons in self.refused.values():
            for reason in reasons:
                match = re.search(r"^\d+:\d+: (\S+): " + pattern, reason)
                if match:
                    told[match[1]] = match.groups()[1:]
        return told

    def test_has_the_limits_of_the_reader(self):
        told = {pointer: (int(least), int(most))
                for pointer, (least, most) in self.tell(r"must be from (-?\d+) to (-?\d+)$").items()}
        self.assertEqual(told.pop("/timeScale"), (0, 1000))
        # That a name is shorter than other long texts is a rule of its own: EXTRA tries it.
        names = {pointer for pointer, most in self.corpus.limits.items() if most == (1, 2048)}
        self.assertEqual(names, {"/models/0/id/bytes"})
        for pointer in names:
            self.assertEqual(told.pop(pointer), (0, 65536))
        self.assertEqual(told, {pointer: each for pointer, each in self.corpus.limits.items()
                                if pointer not in names})

    def test_has_the_words_of_the_reader(self):
        told = {pointer: words.split(", ")
                for pointer, (words,) in self.tell(r"\"nope\" is not one of: (.*)").items()}
        self.assertEqual({key: sorted(words) for key, words in told.items()},
                         {key: sorted(words) for key, words in self.corpus.words.items()})

    def test_was_tried_with_right_and_wrong_values_everywhere(self):
        right, wrong = set(), set()
        for index, pointers in enumerate(self.pointers):
            (wrong if index in self.refused else right).update(pointers)
        self.assertEqual(right, wrong)
        self.assertGreater(len(right), 150)
        print(f"{len(self.documents)} documents, {len(self.refused)} of them refused,",
              f"at {len(right)} places", file=sys.stderr)

    def test_accepts_the_scenarios_that_ship(self):
        names = [name for name in os.listdir(SHIPPED) if name.endswith(".json")]
        self.assertGreater(len(names), 50)
        for name in names:
            with open(os.path.join(SHIPPED, name), encoding="utf-8") as file:
                self.validator.validate(json.load(file))


def model(**more):
    return {"models": [{"id": "m", "versions": ["1"], **more}]}


# What depends on several values, and what the reader alone refuses.
EXTRA = [
    model(), model(versions=[], available=["1"]), model(versions=[], available=[]),
    model(versions=[]), model(available=["1"]), model(versions=["1", "1"]),
    model(versions=["1", "2"], available=["3", "4"]),
    model(title={"fill": "aé", "bytes": 2}), model(title={"fill": "aé", "bytes": 3}),
    model(id={"fill": "a", "bytes": 0}), model(id={"fill": "a", "bytes": 1}),
    model(id={"fill": "a", "bytes": 2048}), model(id={"fill": "a", "bytes": 2049}),
    {"models": [{"id": str(n), "versions": ["1"], "title": {"fill": "a", "bytes": 65536}}
                for n in range(257)]},
    {"packages": [{"id": "a"}, {"id": "a"}]},
    {"agent": {"licenceFile": "missing"}},
    *({"methods": {"get_license": {"fault": base, "calls": [{**call, "cutAt": 1}]}}}
      for base in ("none", "cut", "truncated", "drop")
      for call in ({}, {"fault": "none"}, {"fault": "cut"}, {"fault": "truncated"})),
    *({"methods": {"get_license": {"calls": [{**call, "cutAt": 1}]}}}
      for call in ({}, {"fault": "none"}, {"fault": "cut"}, {"fault": "truncated"})),
    *({"update": {"steps": [{"event": event, **beside}]}}
      for event in ("Start", "Complete", "Fail", "Update", "Launch")
      for beside in ({}, {"code": 1}, {"agents": []}, {"agents": ["a", "a"]}, {"texts": {}})),
]

if __name__ == "__main__":
    unittest.main()
