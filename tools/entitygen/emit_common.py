"""What every emitter shares: filling templates, comments, parameter types."""

import re

from model import BY_VALUE


def fill(template, **holes):
    """Replaces every {{NAME}} of the template; a hole left unfilled is a bug (KeyError)."""
    return re.sub(r'\{\{(\w+)\}\}', lambda m: str(holes[m.group(1)]), template)


def doc_comment(doc, indent=''):
    return ''.join(indent + ('// %s\n' % d if d else '//\n') for d in doc)


def param(t, enums):
    """How a value of type t is passed: small ones by value, the rest by const reference."""
    return t if t in BY_VALUE or t in enums else 'const %s&' % t


def cstring(text):
    return '"%s"' % text.replace('\\', '\\\\').replace('"', '\\"')


def attr_record(m, kind, capacity=0, operations=''):
    """One attribute of a type's registry record: name, id, kind, type and default."""
    default = m.default if m.default is not None else ''
    if default.startswith('"'):
        default = default[1:-1]
    typ = m.type if m.key is None else '%s -> %s' % (m.key, m.type)
    return '{%s, %d, %s, %s, %s, %d, %s}' % (cstring(m.name), m.id, cstring(kind), cstring(typ), cstring(default),
                                          capacity, cstring(operations))
