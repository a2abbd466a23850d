"""The order of the virtual functions, which code built against the headers relies on."""

import os
import re
import tempfile

import check

BASE = ["maybeDelete", "notifieeList", "referenceTrackingEnabled", "hasNotificationActiveIs",
        "zeroReferencesIs", "fwkType", "~", "~"]
NOTIFIEE = BASE + ["lumoReactor", "isRegisteredNotifieeIs", "notifierIs", "handleNotification",
                   "onNotificationException", "onZeroReferences", "lumoFwkActivity", "actsm"]
ENTITY = BASE + ["nameIsFromBackup", "name", "reconstruct", "saveConstructParams", "entBackupDel",
                 "lumoHasAttrLogInterface", "lumoNboAttrLogSaIs"]
GLOBAL_REACTOR = NOTIFIEE + ["onCmdConfigGroup", "onCmdConfigGrouplumoImmediate", "onCmdConfigGroup",
                             "lumoDoZombieReactors"]
GROUP_REACTOR = NOTIFIEE + ["onCmdBatch", "onCmdBatchlumoImmediate", "onCmdBatch",
                            "onCmdBatchMetadata", "onEnqueueVersion", "onIgnoreConfigQueueLimit",
                            "lumoDoZombieReactors"]
CLOCK_REACTOR = NOTIFIEE + ["onTime"]

SLOTS = {
    "Lumo::PtrInterface": BASE,
    "Lumo::Condition": BASE,
    "Lumo::NotifieeConst": NOTIFIEE,
    "Lumo::Clock::NotifieeConst": CLOCK_REACTOR,
    "Lumo::Entity": ENTITY,
    "Lumo::Clock": ENTITY,
    "Norv::GrpcCmd": BASE + ["processResponse"],
    "Norv::ConnectionConfig": BASE,
    "Norv::CmdGroup": BASE,
    "Norv::CmdConfigGroup": ENTITY,
    "Norv::CmdConfigGroup::NotifieeConst": GROUP_REACTOR,
    "Norv::GrpcGlobalCmdConfig": ENTITY,
    "Norv::GrpcGlobalCmdConfig::NotifieeConst": GLOBAL_REACTOR,
    "Norv::GrpcErrorHandlingStatus": ENTITY,
    "Norv::GrpcErrorHandlingStatus::NotifieeConst":
        NOTIFIEE + ["onErrorOccured", "lumoDoZombieReactors"],
    "Norv::ConnectionsMgr": BASE,
    "Norv::ConnectionsMgr::LumoGlobalCmdConfig": GLOBAL_REACTOR,
    "Norv::CmdConfigGroupSm": BASE,
    "Norv::CmdConfigGroupSm::LumoConfigGroup": GROUP_REACTOR,
    "Norv::CmdConfigGroupSm::LumoClock": CLOCK_REACTOR + ["lumoDoZombieReactors"],
}

# Which class's function stands in a slot that a class must override.
OVERRIDES = {
    "Norv::GrpcCmd": ["fwkType"],
    "Norv::ConnectionConfig": ["fwkType"],
    "Norv::CmdGroup": ["fwkType"],
    "Norv::CmdConfigGroup": ["notifieeList", "zeroReferencesIs", "fwkType", "nameIsFromBackup", "name"],
    "Norv::GrpcGlobalCmdConfig":
        ["notifieeList", "zeroReferencesIs", "fwkType", "nameIsFromBackup", "name"],
    "Norv::GrpcErrorHandlingStatus": ["notifieeList", "zeroReferencesIs", "fwkType", "name"],
}

# Which class's function stands in a slot that a class leaves alone.
LEFT = {"Norv::GrpcErrorHandlingStatus": ["Lumo::Entity::nameIsFromBackup"]}


def tables():
    """The virtual tables of the headers' classes, as the compiler itself lists them."""
    compiler = check.need("g++")
    with tempfile.TemporaryDirectory() as folder:
        source = os.path.join(folder, "headers.cpp")
        dump = os.path.join(folder, "classes")
        with open(source, "w") as file:
            file.write("#include <Norv/ConnectionsMgr.h>\n#include <Norv/GrpcCmd.h>\n")
        includes = [f"-I{check.SOURCES}/{module}/include" for module in ("framework", "types", "manager")]
        check.run(compiler, "-std=c++20", "-fsyntax-only", "-fdump-lang-class=" + dump, *includes, source)
        with open(dump) as file:
            text = file.read()
    found = {}
    for name, rows in re.findall(r"^Vtable for (\S+)\n.*\n((?:\d+ .*\n)+)", text, re.M):
        found[name] = re.findall(r"^\d+ +\(int \(\*\)\(\.\.\.\)\)(\w+(?:::~?\w+)+)$", rows, re.M)
    return found


def test_order():
    found = tables()
    for name, slots in SLOTS.items():
        got = [re.sub("^~.*", "~", function.rpartition("::")[2]) for function in found[name]]
        check.equal(got, slots, "slots of " + name)


def test_overrides():
    found = tables()
    for name, functions in OVERRIDES.items():
        for function in functions:
            assert f"{name}::{function}" in found[name], f"{name} does not override {function}"
    for name, functions in LEFT.items():
        for function in functions:
            assert function in found[name], f"{name} overrides {function}"


if __name__ == "__main__":
    check.main()
