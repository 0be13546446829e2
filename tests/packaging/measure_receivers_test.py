# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""measure_receivers_test.py SOURCE BUILD: scripts/measure-receivers, and what it says when it cannot measure."""

import json
import os
import subprocess
import sys
import tempfile
import unittest

TOOL, BUILD = os.path.join(sys.argv.pop(1), "scripts/measure-receivers"), sys.argv.pop(1)


def run(*arguments):
    environment = {name: value for name, value in os.environ.items() if name != "KELVO_VM"}
    result = subprocess.run([sys.executable, TOOL, *arguments], env=environment, capture_output=True, text=True,
                            check=False)
    return result.returncode, result.stdout, result.stderr


def results(on, seconds, **found):
    scans = {key: {"code": code, "seconds": seconds, "names": names, "printed": []}
             for key, (code, names) in found.items()}
    return {"on": on, "services": 2, "results": scans}


class Measure_receivers(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def path(self, name, text=None):
        path = os.path.join(self.folder.name, name)
        if text is not None:
            with open(path, "w", encoding="utf-8") as file:
                file.write(text)
        return path

    def test_without_a_machine_it_says_how_to_name_one(self):
        self.assertEqual(run("--on", "vm"), (1, "", "measure-receivers: no virtual machine: --vm DIR or KELVO_VM=DIR names "
                                             "the folder of a built one (vmrun, presets.txt, build/)\n"))

    def test_a_machine_that_is_not_built_is_refused(self):
        self.path("vmrun", "")
        self.path("presets.txt", "")
        self.assertEqual(run("--on", "vm", "--vm", self.folder.name),
                         (1, "", f"measure-receivers: {self.folder.name}: no build/base.cpio there; --vm wants a virtual "
                          "machine's folder in which build.sh has run\n"))

    def test_a_build_without_softdvb_is_refused(self):
        self.assertEqual(run("--on", "softdvb", "--build", self.folder.name),
                         (1, "", f"measure-receivers: {self.folder.name}/softdvb/softdvb is not there: build softdvb first, or "
                          "name the build with --build DIR\n"))

    def test_an_unknown_device_is_named_with_those_that_there_are(self):
        os.mkdir(self.path("build"))
        self.path("build/base.cpio", "")
        self.path("vmrun", "")
        self.path("presets.txt", "# comment: none\nbox: lock_delay=50\nsi2168: delsys=DVBT,DVBT2\n")
        self.assertEqual(run("--on", "vm", "--vm", self.folder.name, "--device", "tube"),
                         (1, "", "measure-receivers: no device tube there; there are: box si2168\n"))

    def test_a_file_that_is_no_result_is_refused(self):
        code, out, errors = run("--compare", self.path("a", "nonsense"), self.path("b", "{}"))
        self.assertEqual((code, out), (1, ""))
        self.assertIn(f"measure-receivers: {self.folder.name}/a: ", errors)

    def test_rows_are_compared_by_names_and_exit_codes(self):
        first = results("vm", 1.25, **{"box_|_T_good_|_kelvo": (0, ["A", "B"]), "box_|_T_late_|_kelvo": (0, ["A"]),
                                       "box_|_busy_|_scan": (1, []), "only_|_here_|_scan": (0, [])})
        second = results("softdvb", 0.5, **{"box_|_T_good_|_kelvo": (0, ["B", "A"]), "box_|_T_late_|_kelvo": (0, ["B"]),
                                            "box_|_busy_|_scan": (2, [])})
        self.assertEqual(run("--compare", self.path("a", json.dumps(first)), self.path("b", json.dumps(second))), (0, (
            "| device | on the air | scanner | vm | softdvb | |\n"
            "|---|---|---|---|---|---|\n"
            "| box | T good | kelvo | 2 / 0 / 1.2 | 2 / 0 / 0.5 |  |\n"
            "| box | T late | kelvo | 1 / 0 / 1.2 | 1 / 0 / 0.5 | differs |\n"
            "| box | busy | scan | 0 / 1 / 1.2 | 0 / 2 / 0.5 | differs |\n"), ""))

    def test_a_scan_on_softdvb_finds_the_sample_network(self):
        results = self.path("results")
        code, out, errors = run("--on", "softdvb", "--build", BUILD, "--device", "box", "--scanner", "kelvo", "--only",
                                "T good", "--save", results)
        self.assertEqual((code, errors), (0, "measure-receivers: box done\n"))
        self.assertRegex(out, r"\n\| box \| T good \| 16 / 0 / [0-9]+\.[0-9] \|\n$")
        with open(results, encoding="utf-8") as file:
            found = json.load(file)
        self.assertEqual((found["on"], found["services"]), ("softdvb", 16))
        self.assertIn("Kuldnokk 1", found["results"]["box_|_T_good_|_kelvo"]["names"])


if __name__ == "__main__":
    unittest.main()
