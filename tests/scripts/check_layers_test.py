#!/usr/bin/env python3
"""scripts/check-layers on small trees written here, each with known wrong includes."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CHECK = os.path.join(SOURCE, "scripts", "check-layers")

TABLE = """# Development

## Layers

| Layer | Members | May include |
|---|---|---|
| model | `model/` | |
| contract | `amqp/api_message.*` `commands/ICommandHandler.h` | |
| amqp | `amqp/` | `contract` `model` |
| engine | `engine/` | `amqp` `contract` `model` |
| commands | `commands/` | `contract` `model` |

## Next heading

| not | a | layer |
|---|---|---|
| tests | `tests/` | `model` |
"""


class LayerTree:
    """A source tree in a temporary folder with its own table."""

    def __init__(self, table=TABLE):
        self.root = tempfile.mkdtemp(prefix="check-layers-")
        self.write("docs/development.md", table)

    def write(self, path, text):
        full = os.path.join(self.root, path)
        os.makedirs(os.path.dirname(full), exist_ok=True)
        with open(full, "w", encoding="utf-8") as f:
            f.write(text)

    def run(self, table=None):
        args = [sys.executable, CHECK, "--root", self.root]
        if table:
            args += ["--table", table]
        done = subprocess.run(args, capture_output=True, text=True, timeout=60)
        return done.returncode, done.stdout, done.stderr

    def remove(self):
        shutil.rmtree(self.root)


class CheckLayersTest(unittest.TestCase):
    def setUp(self):
        self.tree = LayerTree()
        self.tree.write("model/records.h", "#pragma once\n")
        self.tree.write("amqp/api_message.h", "#pragma once\n")
        self.tree.write("commands/ICommandHandler.h", '#pragma once\n#include "amqp/api_message.h"\n')
        self.tree.write("amqp/rabbit_api_man.h", '#pragma once\n#include "commands/ICommandHandler.h"\n')
        self.tree.write("engine/engine.h", '#pragma once\n#include "amqp/rabbit_api_man.h"\n#include "local.h"\n')
        self.tree.write("engine/local.h", "#pragma once\n")
        self.tree.write("commands/handler.cpp",
                        '#include "commands/ICommandHandler.h"\n#include "model/records.h"\n#include <QString>\n'
                        '#include "handler.moc"\n')
        self.tree.write("tests/helper.h", '#pragma once\n#include "engine/engine.h"\n')

    def tearDown(self):
        self.tree.remove()

    def test_downward_includes_pass(self):
        # Includes down the table, within a layer, beside the file, of generated or
        # system headers, and from tests/ (outside every layer) are all allowed.
        code, out, err = self.tree.run()
        self.assertEqual((code, out), (0, ""), err)

    def test_upward_include_fails_with_file_and_line(self):
        self.tree.write("model/bad.h", '#pragma once\n\n#include "engine/engine.h"\n')
        code, out, _ = self.tree.run()
        self.assertEqual(code, 1)
        self.assertEqual(out.splitlines(), [
            'model/bad.h:3: layer model includes "engine/engine.h" of engine; model may include: nothing'])

    def test_side_by_side_layers_do_not_see_each_other(self):
        # commands and engine both sit above the contract; neither may include the other.
        self.tree.write("commands/uses_engine.cpp", '#include "model/records.h"\n#include "engine/engine.h"\n')
        code, out, _ = self.tree.run()
        self.assertEqual(code, 1)
        self.assertIn("commands/uses_engine.cpp:2: layer commands includes", out)
        self.assertEqual(len(out.splitlines()), 1)

    def test_a_file_member_is_its_own_layer(self):
        # amqp may include commands/ICommandHandler.h (the contract) but no other file of
        # commands/, and the contract file may not include the folder it sits in.
        self.tree.write("amqp/wrong.cpp", '#include "commands/ICommandHandler.h"\n#include "commands/handler.cpp"\n')
        self.tree.write("commands/ICommandHandler.h",
                        '#pragma once\n#include "amqp/api_message.h"\n#include "commands/factory.h"\n')
        self.tree.write("commands/factory.h", "#pragma once\n")
        code, out, _ = self.tree.run()
        self.assertEqual(code, 1)
        lines = sorted(out.splitlines())
        self.assertEqual(len(lines), 2, out)
        self.assertTrue(lines[0].startswith('amqp/wrong.cpp:2: layer amqp includes "commands/handler.cpp" of commands'))
        self.assertTrue(lines[1].startswith(
            'commands/ICommandHandler.h:3: layer contract includes "commands/factory.h" of commands'))

    def test_relative_and_unlayered_includes_are_resolved(self):
        # A path relative to the file that climbs into another layer, and a layer file that
        # includes test code outside every layer.
        self.tree.write("amqp/climb.h", '#pragma once\n#include "../engine/local.h"\n')
        self.tree.write("engine/uses_tests.cpp", '#include "tests/helper.h"\n')
        code, out, _ = self.tree.run()
        self.assertEqual(code, 1)
        self.assertIn('amqp/climb.h:2: layer amqp includes "../engine/local.h" of engine', out)
        self.assertIn('engine/uses_tests.cpp:1: layer engine includes "tests/helper.h" of no layer', out)

    def test_a_broken_table_is_an_error_of_its_own(self):
        self.tree.write("docs/development.md", TABLE.replace("`contract` `model` |\n| engine", "`contrakt` |\n| engine"))
        code, _, err = self.tree.run()
        self.assertEqual(code, 2)
        self.assertIn("unknown layers ['contrakt']", err)
        self.tree.write("docs/development.md", "# Development\n\nNo layers here.\n")
        code, _, err = self.tree.run()
        self.assertEqual(code, 2)
        self.assertIn('no "## Layers" heading', err)


class ProjectTableTest(unittest.TestCase):
    """The project's own table (docs/development.md) catches the includes it forbids."""

    def test_project_table_forbids_the_old_knots(self):
        tree = LayerTree(table="")
        try:
            shutil.copy(os.path.join(SOURCE, "docs", "development.md"), os.path.join(tree.root, "docs"))
            for path in ["engine/Engiene.h", "engine/engine_services.h", "amqp/api_message.h",
                         "commands/ICommandHandler.h", "commands/command_factory.h", "app/composition.h",
                         "app/logger.h", "model/records.h", "interfaces/IDriver.h", "drivers/mbus/decoder.h"]:
                tree.write(path, "#pragma once\n")
            tree.write("commands/command_context.h",
                       '#include "engine/engine_services.h"\n#include "engine/Engiene.h"\n')
            tree.write("amqp/rabbit_api_man.h",
                       '#include "commands/ICommandHandler.h"\n#include "commands/command_factory.h"\n')
            tree.write("drivers/mbus/driver.cpp", '#include "interfaces/IDriver.h"\n#include "app/composition.h"\n')
            tree.write("app/logger.cpp", '#include "app/logger.h"\n#include "app/composition.h"\n')
            tree.write("app/composition.cpp", '#include "engine/Engiene.h"\n#include "commands/command_factory.h"\n')
            code, out, _ = tree.run()
            self.assertEqual(code, 1)
            self.assertEqual(sorted(line.split(": layer")[0] for line in out.splitlines()), [
                "amqp/rabbit_api_man.h:2", "app/logger.cpp:2", "commands/command_context.h:2",
                "drivers/mbus/driver.cpp:2"])
        finally:
            tree.remove()


if __name__ == "__main__":
    unittest.main()
