"""Factory-default stores: sim/factory/*.json and the text json-c gives
their values (json_object_to_json_string)."""
import json
import os

FACTORY = os.path.join(os.path.dirname(os.path.abspath(__file__)), "factory")


class _Num(str):
    """A JSON number kept as its source text, as json-c renders parsed numbers."""


def jsonc_text(value):
    """The text json_object_to_json_string gives for value (json-c 0.16)."""
    if isinstance(value, _Num):
        return str.__str__(value)
    if isinstance(value, str):
        return json.dumps(value, ensure_ascii=False).replace("/", "\\/")
    if value is None or isinstance(value, (bool, int, float)):
        return json.dumps(value)
    if isinstance(value, dict):
        items = [f"{jsonc_text(k)}: {jsonc_text(v)}" for k, v in value.items()]
        return "{ " + ", ".join(items) + " }" if items else "{ }"
    items = [jsonc_text(v) for v in value]
    return "[ " + ", ".join(items) + " ]" if items else "[ ]"


def load_factory(name):
    """sim/factory/NAME.json as an ordered dict ({} if absent); fractions and
    exponents keep their source text, as json-c keeps them."""
    try:
        with open(os.path.join(FACTORY, name + ".json"), encoding="utf-8") as f:
            return json.load(f, parse_float=_Num)
    except FileNotFoundError:
        return {}


def json_record(value):
    """A record value of a JSON store: the json-c text and its NUL."""
    return jsonc_text(value).encode() + b"\0"


def plain_record(value):
    """A record value of rtconf-raw.json: a string's characters as they are."""
    if isinstance(value, str) and not isinstance(value, _Num):
        return value.encode() + b"\0"
    return json_record(value)
