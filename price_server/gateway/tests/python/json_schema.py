"""A validator for the part of JSON Schema 2020-12 that docs/protocol.schema.json uses; it refuses what it does not
know, so that nothing in the schema is passed over in silence."""

import re

IGNORED = {"$schema", "$defs", "title", "description"}
TYPES = {"object": dict, "array": list, "string": str, "boolean": bool, "null": type(None)}


def has_type(value, name):
    if name == "integer":
        return not isinstance(value, bool) and (isinstance(value, int) or isinstance(value, float) and value.is_integer())
    if name == "number":
        return not isinstance(value, bool) and isinstance(value, (int, float))
    return isinstance(value, TYPES[name])


def same(a, b):
    return isinstance(a, bool) == isinstance(b, bool) and a == b


class Validator:
    def __init__(self, root):
        self.root = root

    def errors(self, value, schema, at="$"):
        """What is wrong with a value; empty: nothing."""
        if isinstance(schema, bool):
            return [] if schema else [f"{at}: nothing may stand here"]
        found = []
        for keyword, rule in schema.items():
            if keyword not in IGNORED:
                found += getattr(self, "_" + keyword.lstrip("$"))(value, rule, schema, at)
        return found

    def is_valid(self, value, definition):
        return not self.errors(value, self.root["$defs"][definition])

    def _ref(self, value, rule, schema, at):
        assert rule.startswith("#/$defs/")
        return self.errors(value, self.root["$defs"][rule[len("#/$defs/"):]], at)

    def _type(self, value, rule, schema, at):
        names = rule if isinstance(rule, list) else [rule]
        return [] if any(has_type(value, name) for name in names) else [f"{at}: no {rule}"]

    def _const(self, value, rule, schema, at):
        return [] if same(value, rule) else [f"{at}: not {rule!r}"]

    def _enum(self, value, rule, schema, at):
        return [] if any(same(value, each) for each in rule) else [f"{at}: {value!r} is none of {rule}"]

    def _oneOf(self, value, rule, schema, at):
        problems = [self.errors(value, each, at) for each in rule]
        good = sum(1 for each in problems if not each)
        nearest = min(problems, key=lambda each: (any(".type:" in p for p in each), len(each)))
        return [] if good == 1 else nearest if good == 0 else [f"{at}: fits {good} of them"]

    def _anyOf(self, value, rule, schema, at):
        problems = [self.errors(value, each, at) for each in rule]
        return [] if any(not each for each in problems) else min(problems, key=len)

    def _properties(self, value, rule, schema, at):
        if not isinstance(value, dict):
            return []
        return [e for name, each in rule.items() if name in value for e in self.errors(value[name], each, f"{at}.{name}")]

    def _required(self, value, rule, schema, at):
        return [f"{at}.{name} is missing" for name in rule if isinstance(value, dict) and name not in value]

    def _additionalProperties(self, value, rule, schema, at):
        if not isinstance(value, dict):
            return []
        others = [name for name in value if name not in schema.get("properties", {})]
        return [e for name in others for e in self.errors(value[name], rule, f"{at}.{name}")]

    def _propertyNames(self, value, rule, schema, at):
        return [e for name in value for e in self.errors(name, rule, at)] if isinstance(value, dict) else []

    def _prefixItems(self, value, rule, schema, at):
        if not isinstance(value, list):
            return []
        return [e for i, (item, each) in enumerate(zip(value, rule)) for e in self.errors(item, each, f"{at}[{i}]")]

    def _items(self, value, rule, schema, at):
        if not isinstance(value, list):
            return []
        first = len(schema.get("prefixItems", []))
        return [e for i, item in enumerate(value[first:]) for e in self.errors(item, rule, f"{at}[{i + first}]")]

    def _minItems(self, value, rule, schema, at):
        return [f"{at}: too short"] if isinstance(value, list) and len(value) < rule else []

    def _maxItems(self, value, rule, schema, at):
        return [f"{at}: too long"] if isinstance(value, list) and len(value) > rule else []

    def _uniqueItems(self, value, rule, schema, at):
        return [f"{at}: twice the same"] if isinstance(value, list) and len(set(map(repr, value))) < len(value) else []

    def _minLength(self, value, rule, schema, at):
        return [f"{at}: too short"] if isinstance(value, str) and len(value) < rule else []

    def _maxLength(self, value, rule, schema, at):
        return [f"{at}: too long"] if isinstance(value, str) and len(value) > rule else []

    def _pattern(self, value, rule, schema, at):
        return [f"{at}: {value!r} does not match"] if isinstance(value, str) and not re.search(rule, value) else []

    def _minimum(self, value, rule, schema, at):
        return [f"{at}: below {rule}"] if has_type(value, "number") and value < rule else []

    def _maximum(self, value, rule, schema, at):
        return [f"{at}: above {rule}"] if has_type(value, "number") and value > rule else []
