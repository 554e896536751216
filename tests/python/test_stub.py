"""The type stub describes the package as built: the same public classes,
members and parameters."""

import ast
import inspect
import re
from pathlib import Path

import pytest

import orvikm

PACKAGE = Path(orvikm.__file__).parent
STUB = ast.parse((PACKAGE / "__init__.pyi").read_text())
CLASSES = {node.name: node for node in STUB.body if isinstance(node, ast.ClassDef)}
EXCEPTIONS = ["Error", "ProtocolError", "SocketError", "QueueFullError"]
ENUMS = ["AckMode", "ConnectionState"]
PLAIN = ["Message", "Stats", "FlushResult", "Client"]
# A parameter in the first line of a pybind11 docstring: "name: type".
PARAMETER = re.compile(r"(?:\(|, )(\w+): ")


def members_in_stub(name):
    names = set()
    for item in CLASSES[name].body:
        if isinstance(item, ast.FunctionDef):
            names.add(item.name)
        elif isinstance(item, ast.AnnAssign):
            names.add(item.target.id)
    return {member for member in names if not member.startswith("_")}


def parameters_built(function):
    if inspect.isfunction(function):
        return list(inspect.signature(function).parameters)[1:]
    return PARAMETER.findall(function.__doc__.splitlines()[0])[1:]


def test_the_package_ships_py_typed():
    assert (PACKAGE / "py.typed").is_file()


def test_the_stub_names_every_public_class_and_no_other():
    assert set(CLASSES) == set(orvikm.__all__) == set(EXCEPTIONS + ENUMS + PLAIN)


@pytest.mark.parametrize("name", EXCEPTIONS)
def test_the_stub_gives_each_exception_its_base(name):
    [base] = CLASSES[name].bases
    assert getattr(orvikm, name).__bases__ == (getattr(orvikm, base.id, Exception),)


@pytest.mark.parametrize("name", ENUMS)
def test_the_stub_names_every_value_of_each_enumeration(name):
    assert members_in_stub(name) == set(getattr(orvikm, name).__members__) | {"name", "value"}


@pytest.mark.parametrize("name", PLAIN)
def test_the_stub_names_every_public_member_of_each_class(name):
    built = {member for member in dir(getattr(orvikm, name)) if not member.startswith("_")}
    assert members_in_stub(name) == built


def test_the_client_methods_take_the_parameters_the_stub_names():
    for item in CLASSES["Client"].body:
        if not isinstance(item, ast.FunctionDef) or item.decorator_list:
            continue
        stub = [argument.arg for argument in item.args.args[1:] + item.args.kwonlyargs]
        assert parameters_built(getattr(orvikm.Client, item.name)) == stub, item.name
