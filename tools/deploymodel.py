"""The deployment view of the two components, read from the catalogue.

Valmetra-445.Dll: the library line and class lines of
src/hosting/catalogue/classes.txt, read through gencatalogue.load() (the one
parser of the catalogue). ValueStack.dll: components/valuestack/identity.txt.

genmanifest.py (side-by-side manifests) and genmsi.py (installer registry
rows) both build on this, so the manifests, the packages and the DLLs'
own registration name the same identities.
"""
import os
import re
import sys
from dataclasses import dataclass, field

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gencatalogue  # noqa: E402

ARCHES = ("x64", "x86")
# The standard marshaller for dual/oleautomation interfaces (typelib-driven).
PSOAINTERFACE = "{00020424-0000-0000-C000-000000000046}"
IDISPATCH = "{00020400-0000-0000-C000-000000000046}"


def braced(guid):
    """Registry spelling of an identifier: braces, upper case."""
    return "{" + guid.strip("{}").upper() + "}"


@dataclass
class ComClass:
    name: str            # coclass name, e.g. IntegerData
    clsid: str           # braced, upper case
    progid: str          # version-independent ProgID
    cur_version: str     # version-dependent ProgID that the ProgID's CurVer names
    iid: str             # braced, upper case
    interface: str       # e.g. _IntegerData


@dataclass
class Component:
    key: str             # short id for generated element ids
    file: str            # DLL file name
    libid: str           # braced, upper case
    version: str         # type library version "major.minor" (decimal)
    description: str     # type library / project description text
    classes: list = field(default_factory=list)

    def hex_version(self):
        """The type library version as the registry files it: hex digits."""
        major, minor = (int(x) for x in self.version.split("."))
        return f"{major:x}.{minor:x}"


def valmetra(source):
    lib, classes = gencatalogue.load(source)
    comp = Component("valmetra", "Valmetra-445.Dll", braced(lib.libid), lib.version, lib.description)
    for c in classes:
        progid = f"{lib.name}.{c.name}"
        comp.classes.append(ComClass(c.name, braced(c.clsid), progid, progid + ".1", braced(c.iid), "_" + c.name))
    return comp


def valuestack(source):
    """identity.txt holds the three identifiers; the names are the component's."""
    path = os.path.join(source, "components/valuestack/identity.txt")
    ids = {}
    with open(path, encoding="utf-8") as f:
        for raw in f:
            line = raw.strip()
            if not line or line.startswith("#"):
                continue
            m = re.match(r"^(\w+)\s+\{([0-9a-fA-F-]{36})\}$", line)
            if not m:
                raise gencatalogue.CatalogueError(f"{path}: bad line: {line}")
            ids[m.group(1)] = m.group(2)
    for k in ("typelib", "class", "interface"):
        if k not in ids:
            raise gencatalogue.CatalogueError(f"{path}: no {k} identifier")
    # Version and description as components/valuestack/valuestack.idl declares them.
    comp = Component("valuestack", "ValueStack.dll", braced(ids["typelib"]), "1.0",
                     "ValueStack: per-apartment value history")
    comp.classes.append(ComClass("ValueStack", braced(ids["class"]), "ValueStack.ValueStack",
                                 "ValueStack.ValueStack.1", braced(ids["interface"]), "_ValueStack"))
    return comp


def components(source):
    return [valmetra(source), valuestack(source)]


# The side-by-side assembly that carries both DLLs.
ASSEMBLY_NAME = "KARVO.Valmetra"


def assembly_version(source):
    """The file version of the library (4.0.0.1), from the top-level project()."""
    with open(os.path.join(source, "CMakeLists.txt"), encoding="utf-8") as f:
        m = re.search(r"project\(\s*KARVO_Valmetra\s+VERSION\s+(\d+\.\d+\.\d+\.\d+)", f.read())
    if not m:
        raise gencatalogue.CatalogueError("CMakeLists.txt: no project(KARVO_Valmetra VERSION a.b.c.d)")
    return m.group(1)
