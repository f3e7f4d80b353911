"""The mutation operators: each makes its mutants of one source by a rule.

An operator yields lists of edits (start, end, new text). What it leaves out on purpose, because no
host could tell the difference, it says where it does.
"""

import re

from source import CLOSING

OPERATORS = {}  # name -> (files it is for, function)


def operator(name, files="src"):
    def register(function):
        OPERATORS[name] = (files, function)
        return function

    return register


def replaced(source, index, text):
    token = source.tokens[index]
    return [(token.start, token.end, text)]


def span(source, first, last, text):
    return [(source.tokens[first].start, source.tokens[last].end, text)]


def swapped(source, left, right):
    return span(source, *left, source.between(*right)) + span(source, *right, source.between(*left))


def inside(source):
    """Every token of a function's body, and its function."""
    for function in source.functions:
        for index in range(function.body[0] + 1, function.body[1]):
            yield index, function


def statements(source):
    for function in source.functions:
        for run in function.runs:
            yield from run


# --- Conditions ---------------------------------------------------------------------------------

COMPARED = {"==": ["!="], "!=": ["=="], "<": ["<=", ">"], ">": [">=", "<"], "<=": ["<"], ">=": [">"]}


@operator("comparison")
def comparison(source, _):
    for index, _ in inside(source):
        if source.spaced(index):
            for other in COMPARED.get(source.value(index), []):
                yield replaced(source, index, other)


@operator("logical")
def logical(source, _):
    for index, _ in inside(source):
        other = {"&&": "||", "||": "&&"}.get(source.value(index))
        if other:
            yield replaced(source, index, other)


@operator("negation")
def negation(source, _):
    for index, _ in inside(source):
        if source.value(index) == "!":
            yield replaced(source, index, "")


def conditions(source):
    """First and last token of what is tested: by if and ?:, by the operands of && and ||, and
    what initialises a bool."""
    for index, _ in inside(source):
        if source.value(index) == "if":
            yield index + 2, source.partner[index + 1] - 1
        elif source.value(index) == "?":
            yield start_of(source, index), index - 1
        elif source.value(index) in ("&&", "||"):
            begin, end = start_of(source, index), end_of(source, index)
            parts = source.pieces(begin, end, ("&&", "||"))
            # Each operand once, at the operator before it; the first at the first operator.
            for left, right in zip(parts, parts[1:]):
                if right[0] == index + 1:
                    if left == parts[0]:
                        yield left
                    yield right
    for statement in statements(source):
        if statement.declared and statement.declared[0] == "bool":
            equals = [i for i in range(statement.first, statement.last) if source.value(i) == "="][0]
            yield equals + 1, statement.last - 1


def start_of(source, index):
    """Where the expression that index is in begins, on its own level of brackets."""
    while True:
        value = source.value(index - 1)
        if value in CLOSING.values():
            index = source.partner[index - 1]
        elif value in ("(", "{", ",", "=", ";", "return", "?", ":"):
            return index
        else:
            index -= 1


def end_of(source, index):
    while source.value(index + 1) not in (")", "}", ",", ";", "?", ":"):
        index += 1
        if source.value(index) in CLOSING:
            index = source.partner[index]
    return index


@operator("condition")
def condition(source, _):
    seen = set()
    for first, last in conditions(source):
        if (first, last) in seen:
            continue
        seen.add((first, last))
        yield span(source, first, last, "true")
        yield span(source, first, last, "false")
        if source.value(first) != "!":  # negation has those
            yield span(source, first, last, f"!({source.between(first, last)})")


# --- Values -------------------------------------------------------------------------------------


@operator("constant")
def constant(source, _):
    for index, _ in inside(source):
        yield from constant_at(source, index)


def constant_at(source, index):
    value = source.value(index)
    if value in ("true", "false"):
        yield replaced(source, index, "false" if value == "true" else "true")
    elif value.isdigit():
        yield replaced(source, index, str(int(value) + 1))
        yield replaced(source, index, "-1")


@operator("text")
def text(source, _):
    for index, _ in inside(source):
        if source.tokens[index].kind == "text":
            head, body, tail = re.fullmatch(r'(\w*")(.*)("\w*)', source.value(index)).groups()
            yield replaced(source, index, head + tail)
            other = next((o for o in (body.lower(), body.upper()) if o != body), body + "x")
            yield replaced(source, index, head + other + tail)


# What a conversion answers when the value is missing or of another type.
DEFAULTS = {"toBool": "true", "toInt": "-1", "toString": 'u"x"_s', "toArray": "QJsonArray{1}"}


@operator("default")
def default(source, _):
    for index, _ in inside(source):
        other = DEFAULTS.get(source.value(index))
        if not other or source.value(index - 1) != ".":
            continue
        if source.value(index + 2) == ")":
            yield replaced(source, index + 1, f"({other}")
        else:
            yield span(source, index + 2, source.partner[index + 1] - 1, "")


@operator("conversion")
def conversion(source, _):
    """Lets JSON of another type through, as QVariant converts it."""
    for index, _ in inside(source):
        if source.value(index) in ("toBool", "toInt", "toString") and source.value(index + 2) == ")":
            if source.value(source.partner[index - 2] - 1) == "value":
                yield replaced(source, index, f"toVariant().{source.value(index)}")


# --- Names --------------------------------------------------------------------------------------


def fields_of(record):
    """(type, name) of a record's data members, in their order."""
    source, (_, first, last) = record
    found = []
    for begin, end in source.pieces(first + 1, last - 1, (";",)):
        match = re.search(r"(\w+) (\*?)(\w+)( = [^;()]*)?$", source.between(begin, end))
        if match and "(" not in source.between(begin, end):
            found.append((match[1] + match[2], match[3]))
    return found


def variables(source, function, index, headers):
    """{name: type} of what can be named at that token: parameters, earlier locals, members."""
    found = {name: type_ for type_, name in function.parameters}
    for run in function.runs:
        for statement in run:
            if statement.declared and statement.last < index:
                found[statement.declared[1]] = statement.declared[0]
    if function.member:
        found.update((name, type_) for type_, name in fields_of(headers["Corvane"]))
    return found


def uses(source, headers):
    """(index, name -> type) of every use of a variable."""
    for index, function in inside(source):
        if source.tokens[index].kind != "name" or source.value(index - 1) in (".", "->", "::"):
            continue
        if source.value(index + 1) in ("::", "("):
            continue
        known = variables(source, function, index, headers)
        if source.value(index) in known:
            yield index, known


@operator("name")
def name(source, headers):
    """Another variable of the same type: each local one, and one member."""
    for index, known in uses(source, headers):
        value = source.value(index)
        others = [other for other in known if other != value and known[other] == known[value]]
        members = [other for other in others if other.startswith("m_")]
        for other in others:
            if other not in members[1:]:
                yield replaced(source, index, other)


@operator("blank")
def blank(source, headers):
    """An empty value where a variable is a whole argument or right-hand side."""
    for index, known in uses(source, headers):
        type_ = known[source.value(index)]
        whole = source.value(index - 1) in ("(", ",", "=") and source.value(index + 1) in (")", ",", ";", "}")
        if whole and type_ in ("QString", "QByteArray", "QJsonObject", "QUrl"):
            yield replaced(source, index, f"{type_}()")


@operator("field")
def other_field(source, headers):
    """The record's next field of the same type."""
    for index, function in inside(source):
        if source.value(index - 1) != ".":
            continue
        known = variables(source, function, index, headers)
        type_ = known.get(source.value(index - 2))
        if type_ not in headers:
            continue
        types = {name: type_ for type_, name in fields_of(headers[type_])}
        alike = [name for name in types if types[name] == types.get(source.value(index))]
        if len(alike) > 1:
            following = alike.index(source.value(index)) + 1
            yield replaced(source, index, alike[following % len(alike)])


def enumerators(headers):
    source, (_, first, last) = headers["Corvane"]
    for index in range(first, last):
        if source.value(index) == "enum":
            brace = index + 2
            return [source.value(i) for i in range(brace + 1, source.partner[brace]) if source.value(i) != ","]
    return []


@operator("operation")
def operation(source, headers):
    """Another Operation. Labels of the switch trade places instead, as none may stand twice; those
    of the same statements have nothing to trade."""
    names = enumerators(headers)
    labels = []
    for index, _ in inside(source):
        if source.value(index) not in names:
            continue
        if source.value(index - 1) == "case":
            labels.append(index)
            continue
        for other in names:
            if other != source.value(index):
                yield replaced(source, index, other)
    for left in labels:
        for right in labels:
            if left + 3 < right:
                yield swapped(source, (left, left), (right, right))


# Enumerators of Qt's that could stand in each other's place.
ENUMERATORS = {
    "DecodedMode": ["TolerantMode", "StrictMode"],
    "TolerantMode": ["DecodedMode", "StrictMode"],
    "Compact": ["Indented"],
    "CacheLoadControlAttribute": ["CacheSaveControlAttribute", "User"],
    "AlwaysNetwork": ["PreferNetwork", "PreferCache", "AlwaysCache"],
    "ContentTypeHeader": ["ContentDispositionHeader", "UserAgentHeader"],
    "NoError": ["RemoteHostClosedError", "UnknownContentError"],
    "HttpStatusCodeAttribute": ["HttpReasonPhraseAttribute", "RedirectionTargetAttribute"],
    "WriteOnly": ["ReadWrite", "ReadOnly", "Append"],
    "Truncate": ["Append", "NewOnly", "ExistingOnly", "Text", "Unbuffered"],
    "finished": ["readChannelFinished", "metaDataChanged", "requestSent"],
}


@operator("enumerator")
def enumerator(source, _):
    for index, _ in inside(source):
        if source.value(index - 1) == "::":
            for other in ENUMERATORS.get(source.value(index), []):
                yield replaced(source, index, other)


@operator("flag")
def flag(source, _):
    for index, _ in inside(source):
        if source.value(index) == "|":
            yield span(source, index, index + 3, "")
            yield span(source, index - 3, index, "")


# --- Calls --------------------------------------------------------------------------------------

# Functions that could be called instead.
CALLS = {
    "trimmed": ["simplified", "toHtmlEscaped"],
    "toUpper": ["toLower"],
    "toLower": ["toUpper", "toCaseFolded"],
    "get": ["head", "deleteResource"],
    "post": ["put"],
    "isValid": ["isEmpty"],
    "isEmpty": ["isNull"],
    "absolutePath": ["path", "absoluteFilePath", "canonicalPath"],
    "mkpath": ["mkdir", "rmdir"],
    "currentMSecsSinceEpoch": ["currentSecsSinceEpoch"],
    "fromUtf8": ["fromLatin1"],
    "readAll": ["readLine", "peek"],
    "deleteLater": ["close", "abort"],
    "toInt": ["toInteger"],
    "toPercentEncoding": ["toAce"],
    "setQuery": ["setFragment"],
    "errorString": ["objectName"],
    "uncachedRequest": ["QNetworkRequest"],
}


@operator("call")
def call(source, _):
    for index, _ in inside(source):
        if source.value(index + 1) != "(":
            continue
        for other in CALLS.get(source.value(index), []):
            if other == "peek":
                yield span(source, index, index + 2, "peek(reply->bytesAvailable())")
            elif other == "QNetworkRequest":
                yield span(source, index - 2, index, other)
            else:
                yield replaced(source, index, other)


@operator("step")
def step(source, _):
    """A step without arguments left out of a chain: .trimmed() and its like."""
    for index, _ in inside(source):
        if [source.value(index + i) for i in (0, 2, 3)] == [".", "(", ")"]:
            if source.value(index + 1) in ("trimmed", "toUpper", "toLower"):
                yield span(source, index, index + 3, "")


@operator("argument-swap")
def argument_swap(source, _):
    for index, _ in inside(source):
        called = source.value(index) == "(" and source.tokens[index - 1].kind == "name"
        if not (called and source.value(index - 1) not in ("if", "switch") or source.value(index) == "{"):
            continue
        parts = source.pieces(index + 1, source.partner[index] - 1)
        if any(";" == source.value(i) for i in range(index, source.partner[index])):
            continue
        for left, right in zip(parts, parts[1:]):
            # The members of an object are sorted by their keys, in whatever order they are listed.
            if source.value(left[0]) != "{" and source.between(*left) != source.between(*right):
                yield swapped(source, left, right)


@operator("element")
def element(source, _):
    """A member left out of an object's initialiser."""
    for index, _ in inside(source):
        if source.value(index) == "{" and source.value(index + 1) == "{":
            for first, last in source.pieces(index + 1, source.partner[index] - 1):
                comma = last + 1 if source.value(last + 1) == "," else last
                yield span(source, first, comma, "")


# --- Statements ---------------------------------------------------------------------------------


@operator("statement")
def statement(source, _):
    for found in statements(source):
        if found.declared or found.text.startswith(("using", "return ")):
            continue
        # Nothing follows the switch that its last break ends.
        if found.text == "break;" and source.value(found.last + 1) == "}" and source.value(found.last + 2) == "}":
            continue
        # "if (x) ;" does not compile without a warning, but "{}" does.
        lone = source.value(found.first - 1) == ")"
        yield span(source, found.first, found.last, "{}" if lone else "")


@operator("return")
def return_(source, _):
    for found in statements(source):
        # "{}" is false, and the operator for constants has the rest of those.
        if found.text.startswith("return ") and source.value(found.first + 1) not in ("true", "false"):
            yield span(source, found.first + 1, found.last - 1, "{}")


@operator("twice")
def twice(source, _):
    """Signals and the client's own calls, which must happen once."""
    for found in statements(source):
        if re.match(r"Q_EMIT|[a-z]\w*\(", found.text):
            yield span(source, found.first, found.last, found.text + " " + found.text)


@operator("order")
def order(source, _):
    for function in source.functions:
        for run in function.runs:
            for one, two in zip(run, run[1:]):
                if swappable(one, two):
                    left, right = (one.first, one.last), (two.first, two.last)
                    yield swapped(source, left, right)


def swappable(one, two):
    if "return" in two.text or one.text.startswith(("using", "break")) or two.text.startswith("break"):
        return False
    if one.declared and re.search(rf"\b{one.declared[1]}\b", two.text):
        return False
    # Two fields, or two members of an object, set one after the other: whichever is first.
    target = re.match(r"([\w.]+) =\s", one.text)
    independent = target and re.match(r"[\w.]+ =\s", two.text) and target[1] not in two.text
    inserts = all(".insert(" in each.text for each in (one, two))
    return not independent and not inserts


@operator("copy")
def copy(source, _):
    """A reference in place of a copy of a variable."""
    for found in statements(source):
        match = re.fullmatch(r"const (\w+) (\w+) = \w+;", found.text)
        if match:
            yield span(source, found.first, found.last, found.text.replace(f"{match[1]} ", f"{match[1]} &", 1))


# --- Public headers -----------------------------------------------------------------------------


@operator("field-default", "records")
def field_default(source, _):
    for index in range(len(source.tokens)):
        if source.value(index - 1) == "=":
            yield from constant_at(source, index)
            yield span(source, index - 1, index, "")


@operator("field-type", "records")
def field_type(source, _):
    for index in range(len(source.tokens)):
        other = {"int": "qint64", "bool": "int", "QJsonObject": "QVariantMap"}.get(source.value(index))
        if other:
            yield replaced(source, index, other)


@operator("field-order", "records")
def field_order(source, _):
    for _, first, last in source.records:
        parts = source.pieces(first + 1, last - 1, (";",))
        for left, right in zip(parts, parts[1:]):
            yield swapped(source, left, right)


@operator("metatype", "records")
def metatype(source, _):
    for index in range(len(source.tokens)):
        if source.value(index) == "Q_DECLARE_METATYPE":
            yield span(source, index, index + 3, "")


def signals(source):
    """First and last token of each signal's declaration."""
    indexes = [index for index in range(len(source.tokens)) if source.value(index) == "Q_SIGNALS"]
    for index in indexes:
        end = next(i for i in range(index, len(source.tokens)) if source.value(i) == "private")
        yield source.pieces(index + 2, end - 1, (";",))


@operator("signal-order", "client")
def signal_order(source, _):
    for declarations in signals(source):
        for left, right in zip(declarations, declarations[1:]):
            yield swapped(source, left, right)


@operator("signal-parameter", "client")
def signal_parameter(source, _):
    """A parameter's name, which the meta-object shows."""
    for declarations in signals(source):
        for first, last in declarations:
            for index in range(first, last + 1):
                if source.value(index + 1) in (",", ")"):
                    yield replaced(source, index, source.value(index) + "2")


@operator("specifier", "client")
def specifier(source, _):
    for index in range(len(source.tokens)):
        if source.value(index) == "explicit":
            yield replaced(source, index, "")
        elif source.value(index) == "private":
            yield replaced(source, index, "public")
            yield replaced(source, index, "protected")
        elif source.value(index) == "Q_SIGNALS":
            yield replaced(source, index, "public Q_SLOTS")


def mutants_of(path, source, headers):
    """(operator, edits) for every mutant that a rule makes of the file."""
    kind = {"include/corvanetypes.h": "records", "include/corvane.h": "client"}.get(path, "src")
    for rule, (files, function) in OPERATORS.items():
        if files == kind:
            for edits in function(source, headers):
                yield rule, edits
