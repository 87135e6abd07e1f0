#!/usr/bin/env python3
"""Shows that each house rule goes red on a tree that breaks it, and stays green on one that does not."""

import json
import os
import tempfile
import unittest

import tidy

STORY = "#pragma once\n\n// Tells what it is for.\n"


class Rules(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = os.path.realpath(folder.name)

    def write(self, name, text, mode=0o644):
        path = os.path.join(self.root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(path, mode)

    def findings(self, rule, **options):
        return list(rule(tidy.Tree(self.root, **options)))

    def red(self, rule, count=1, **options):
        found = self.findings(rule, **options)
        self.assertEqual(count, len(found), found)

    def green(self, rule, **options):
        self.assertEqual([], self.findings(rule, **options))

    def test_rooms_include_only_what_they_stand_on(self):
        rule = tidy.rule_include_direction
        self.write("platform/Kel/Ptr.cpp", '#include "RingLog/RingLog.h"\n#include "Kel/Ptr.h"\n#include <vector>\n')
        self.write("Vxlan/Sm.cpp", '#include "Vxlan/types/VniExt.h"\n#include "Vxlan/framework/Trace.h"\n')
        self.write("tools/vxlanctl/main.cpp", '#include "service/control/Client.h"\n')
        self.write("tests/Kel/PtrTest.cpp", '#include "agent/Agent.h"\n')
        self.green(rule)
        for name, include in [("platform/Kel/A.h", "Entdb/Entdb.h"), ("platform/Entdb/A.h", "Vxlan/types/VniExt.h"),
                              ("Vxlan/types/A.h", "Vxlan/framework/Trace.h"), ("Vxlan/framework/A.h", "Vxlan/Sm.h"),
                              ("Vxlan/A.h", "agent/Agent.h"), ("agent/A.h", "tools/x/X.h"),
                              ("service/A.h", "Vxlan/types/Qnet.h"), ("service/A.h", "agent/Agent.h"), ("tools/x/A.h", "agent/Agent.h"),
                              ("platform/Memtab/A.h", "RingLog/RingLog.h"), ("platform/RingLog/A.h", "Memtab/Writer.h")]:
            with self.subTest(name):
                self.write(name, f'#include "{include}"\n')
                self.red(rule)
                os.remove(os.path.join(self.root, name))

    def test_quoted_includes_name_their_room(self):
        self.write("platform/Kel/Ptr.cpp", '#include "Ptr.h"\n')
        self.red(tidy.rule_include_direction)

    def test_a_program_may_have_headers_of_its_own(self):
        self.write("tools/ringlog/CMakeLists.txt", "vcc_program(ringlog SOURCES main.cpp)\n")
        self.write("tools/ringlog/Printer.h", "")
        self.write("tools/ringlog/main.cpp", '#include "Printer.h"\n')
        self.green(tidy.rule_include_direction)
        self.green(tidy.rule_header_listed)
        self.write("tools/ringlog/main.cpp", '#include "Paper.h"\n')
        self.red(tidy.rule_include_direction)
        self.write("tools/ringlog/CMakeLists.txt", "vcc_program(ringlog)\nvcc_room(Printing)\n")
        self.red(tidy.rule_header_listed)

    def test_the_core_stands_on_nothing_foreign(self):
        self.write("agent/A.cpp", "#include <fmt/format.h>\n")
        self.green(tidy.rule_no_foreign_library)
        self.write("Vxlan/A.cpp", "#include <fmt/format.h>\n")
        self.write("platform/Kel/A.cpp", "#include <nlohmann/json.hpp>\n")
        self.red(tidy.rule_no_foreign_library, 2)

    def test_json_from_outside_is_read_in_one_place(self):
        self.write("service/json/Text.cpp", "auto a = nlohmann::json::parse(text);\n")
        self.write("tests/A.cpp", "auto a = json::parse(text);\n")
        self.write("agent/B.cpp", "auto a = Request::parse(text);\nauto b = parseJson(text);\n")
        self.green(tidy.rule_json_from_outside)
        self.write("agent/B.cpp", "auto a = json::parse(text);\n")
        self.write("tools/C.cpp", "const bool fits = nlohmann::json::accept(text);\n")
        self.red(tidy.rule_json_from_outside, 2)

    def test_no_include_climbs(self):
        self.write("tests/Kel/A.cpp", '#include "Kel/Ptr.h"\n')
        self.green(tidy.rule_no_parent_include)
        self.write("tests/Kel/B.cpp", '#include "../Kel/Ptr.h"\n')
        self.red(tidy.rule_no_parent_include)

    def test_headers_begin_with_pragma_once(self):
        self.write("tests/A.h", "#pragma once\n")
        self.green(tidy.rule_pragma_once)
        self.write("tests/B.h", "#ifndef B\n#define B\n#endif\n")
        self.red(tidy.rule_pragma_once)

    def test_classes_tell_their_story(self):
        self.write("agent/A.h", STORY + "class A {\n  struct Inner {};\n};\nclass Forward;\n")
        self.write("agent/B.h", STORY + "template <class T>\nstruct alignas(8) B final {\n};\n")
        self.write("agent/C.h", "#pragma once\nnamespace agent::detail {\nstruct C {};\n}\n"
                                "namespace std {\ntemplate <>\nstruct hash<A> {};\n}\nenum class E { a };\n")
        self.write("agent/D.h", '#pragma once\n#define OPEN {\nnamespace a {\ninline int f() { return \'{\'; }\n}\n')
        self.green(tidy.rule_story)
        for number, body in enumerate(["class X {\n};\n", "namespace a {\n\nstruct X : Y {};\n}\n",
                                       "// Story, but not right above.\n\nclass X {};\n", "class A;\nclass KEL_EXPORT X {};\n",
                                       "template <class T, class = void>\nclass X {};\n",
                                       "inline int f() { return 1; }\nstruct [[nodiscard]] X {};\n"]):
            with self.subTest(body):
                self.write(f"agent/X{number}.h", "#pragma once\n" + body)
                self.red(tidy.rule_story)
                os.remove(os.path.join(self.root, f"agent/X{number}.h"))

    def test_headers_stand_in_their_target(self):
        self.write("service/loop/CMakeLists.txt", "vcc_room(ServiceLoop service/loop HEADERS EventLoop.h inner/Timer.h)\n")
        self.write("service/loop/EventLoop.h", "")
        self.write("service/loop/inner/Timer.h", "")
        self.green(tidy.rule_header_listed)
        self.write("service/loop/Loop.h", "")
        self.write("tools/Lone.h", "")
        self.red(tidy.rule_header_listed, 2)

    def test_sources_belong_to_a_target(self):
        self.write("platform/Kel/Ptr.cpp", "")
        self.write("tests/package/consumer/CMakeLists.txt", "project(Consumer)\n")
        self.write("tests/package/consumer/consumer.cpp", "")
        self.write("build/compile_commands.json", json.dumps(
            [{"directory": self.root, "file": os.path.join(self.root, "platform/Kel/Ptr.cpp"), "command": "c++"}]))
        options = {"compile_commands": os.path.join(self.root, "build/compile_commands.json")}
        self.green(tidy.rule_source_in_target, **options)
        self.write("agent/Forgotten.cpp", "")
        self.red(tidy.rule_source_in_target, **options)
        self.green(tidy.rule_source_in_target, without=["agent"], **options)
        self.green(tidy.rule_source_in_target)

    def test_nothing_is_left_unfinished(self):
        self.write("agent/A.cpp", "// Done. A clock armed for " + "now fires on the next turn.\n")
        self.green(tidy.rule_finished)
        for number, word in enumerate(["TO" + "DO: more", "FIX" + "ME", "XX" + "X", "not implement" + "ed", "for " + "now"]):
            self.write(f"agent/B{number}.cpp", f"// {word}\n")
        self.write("scripts/run", "# TO" + "DO\n")
        self.red(tidy.rule_finished, 6)

    def test_some_words_have_no_place(self):
        self.write("docs/a.md", "RFC 7047 is a spec" + "ification. Unspecific, inspector, part 2 of 3.\n")
        self.green(tidy.rule_unmentioned)
        for number, words in enumerate(["Spec" + "ification", "see spec" + ".md", "as the sp" + "ec says",
                                        "Par" + "t 2.3", "../sh" + "ared/x", "/wor" + "k/main"]):
            self.write(f"docs/b{number}.md", f"So: {words}\n")
        self.red(tidy.rule_unmentioned, 6)

    def test_files_stay_short(self):
        self.write("agent/A.cpp", "\n" * 600)
        self.green(tidy.rule_length)
        self.write("agent/B.cpp", "\n" * 601)
        self.red(tidy.rule_length)
        self.write("tests/house/long-files.txt", "# why\nagent/B.cpp  # a table\n")
        self.green(tidy.rule_length)
        self.write("tests/house/long-files.txt", "agent/A.cpp\nagent/B.cpp\n")
        self.red(tidy.rule_length)

    def test_assertions_hold_in_every_build(self):
        self.write("agent/A.cpp", 'static_assert(true);\n// assert(x)\nconst char* s = "assert(x)";\nKel::assert_(x);\n')
        self.green(tidy.rule_own_assertion)
        self.write("agent/B.cpp", "#include <cassert>\nvoid f() { assert(true); }\n")
        self.red(tidy.rule_own_assertion, 2)

    def test_tests_do_not_sleep(self):
        self.write("agent/A.cpp", "usleep(1);\n")
        self.write("tests/A.cpp", "// sleep(1)\n")
        self.green(tidy.rule_no_sleep)
        self.write("tests/B.cpp", "std::this_thread::sleep_for(1s);\nusleep(1);\nsleep(1);\n")
        self.red(tidy.rule_no_sleep, 3)

    def test_threats_are_shown_by_tests_that_there_are(self):
        self.green(tidy.rule_shown_by_tests)
        self.write("tests/control/A.cpp", "TEST(Suite, Name) {\nTEST_F( Fixture , DoesIt ) {\n// TEST(Other, Name)\n")
        self.write("tests/live/kill.py", "def scenario_of_many(rig):\n    pass\n\n\ndef helper():\n    pass\n")
        head = "| it may | at worst | shown by |\n|---|---|---|\n"
        self.write("docs/security.md", "As `Suite.Name` is. `--option`, `/dev/shm`, `a`.\n" + head
                   + "| a | b | `Suite.Name`, `Fixture.DoesIt` |\n| a | b | `live.kill.of_many` |\n")
        self.green(tidy.rule_shown_by_tests)
        for row in ["`Suite.Gone`", "`Suite.Name`, `Fixture.Gone`", "`live.kill.of_few`", "`live.kill.helper`", "`Other.Name`",
                    "nothing"]:
            with self.subTest(row):
                self.write("docs/security.md", head + f"| a | b | {row} |\n")
                self.red(tidy.rule_shown_by_tests)

    def test_scripts_can_be_run(self):
        self.write("scripts/run", "#!/bin/sh\n", 0o755)
        self.green(tidy.rule_runnable)
        self.write("scripts/walk", "#!/bin/sh\n")
        self.red(tidy.rule_runnable)

    def test_documents_name_paths_that_are_there(self):
        rule = tidy.rules_text.rule_documented_paths
        self.write("docs/kel.md", "")
        self.write("service/loop/EventLoop.h", "")
        self.write("README.md", "`docs/kel.md`, `service/loop/`, `service/*/EventLoop.h`, `/etc/x`, [kel](docs/kel.md#a), [x](https://x)\n")
        self.green(rule)
        self.write("docs/a.md", "`docs/kel2.md`\n[kel](kel2.md)\n`service/*/Loop.h`\n")
        self.red(rule, 3)

    def test_documents_name_targets_that_are_there(self):
        rule = tidy.rules_text.rule_documented_targets
        self.write("tests/Kel/CMakeLists.txt", "vcc_test(kel_test\n  SOURCES A.cpp)\n")
        self.write("README.md", "    cmake --build --preset dev --target kel_test\n")
        self.green(rule)
        self.write("scripts/mutate", "#   # target: KelTest\n")
        self.write("docs/a.md", "cmake --build build --target KelTest\n")
        self.red(rule, 2)

    def test_documents_run_commands_that_are_there(self):
        rule = tidy.rules_text.rule_documented_commands
        self.write("scripts/test", "#!/bin/sh\n", 0o755)
        self.write("README.md", "    scripts/test --quick\n")
        self.green(rule)
        self.write("README.md", "    scripts/tests\n")
        self.red(rule)

    def test_the_tour_names_every_room_and_machine(self):
        rule = tidy.rules_text.rule_tour
        self.write("service/loop/CMakeLists.txt", "vcc_room(ServiceLoop service/loop)\n")
        self.write("Vxlan/VxlanControllerSm.h", "class KEL_API RmxStateSm final : public Kel::StateMachine {\nclass Later;\n")
        self.write("docs/architecture.md", "`service/loop`, `RmxStateSm`\n")
        self.green(rule)
        self.write("docs/architecture.md", "`service/loops`, `RmxStateSmBase`\n")
        self.red(rule, 2)

    def test_words_are_plain(self):
        rule = tidy.rules_text.rule_plain_words
        self.write("docs/a.md", "It is read anew by whoever comes.\n")
        self.green(rule)
        self.write("tests/house/words.txt", "# why\nanew -> again\nbears? -> carry\n")
        self.write("CHANGELOG.md", "It was made anew.\n")
        self.write("agent/A.cpp", 'const char* text = "anew";  // renewed, bearing\n')
        self.red(rule, 1)
        self.write("agent/A.h", "int a;  // A" + "new.\n")
        self.write("scripts/run", "# It bears\n# a mark.\n")
        self.write("man/a.1", "anew\n")
        self.red(rule, 4)

    def test_comments_have_one_style(self):
        rule = tidy.rules_text.rule_one_comment_style
        self.write("agent/A.h", "// a\nint a;  // b\n")
        self.green(rule)
        self.write("agent/B.h", "/// a\n  /// b\n")
        self.red(rule, 2)

    def test_constants_are_camel_case(self):
        rule = tidy.rules_text.rule_constants
        self.write("agent/A.h", "constexpr int limit = 1;\nconstexpr int keep{2};\n/* constexpr int kOld = 1; */\n")
        self.green(rule)
        self.write("agent/B.h", "constexpr int kLimit = 1;\nstatic constexpr std::size_t kMost{2};\n")
        self.red(rule, 2)

    def test_test_names_are_upper_camel(self):
        rule = tidy.rules_text.rule_test_names
        self.write("tests/A.cpp", "TEST(A, ItRuns) {}\nTEST_F(A, ItStops) {}\n")
        self.green(rule)
        self.write("tests/B.cpp", "TEST(A, itRuns) {}\nTEST_F(A, itStops) {}\n")
        self.red(rule, 2)

    def test_target_names_say_what_they_are(self):
        rule = tidy.rules_text.rule_target_names
        self.write("tests/Kel/CMakeLists.txt", "vcc_test(kel_test\n  SOURCES A.cpp)\nvcc_bench(kel_bench SOURCES B.cpp)\n")
        self.green(rule)
        self.write("tests/B/CMakeLists.txt", "vcc_test(KelTest SOURCES A.cpp)\nvcc_bench(kel_test SOURCES B.cpp)\n")
        self.red(rule, 2)

    def test_a_finding_says_where_and_what(self):
        self.write("tests/A.h", "#pragma once\n")
        self.assertEqual([], list(tidy.findings(tidy.Tree(self.root))))
        self.write("tests/B.h", "\n")
        self.assertEqual(["tests/B.h:1: pragma-once: a header begins with #pragma once"],
                         list(tidy.findings(tidy.Tree(self.root))))

    def test_every_rule_is_tried_here(self):
        with open(__file__, encoding="utf-8") as file:
            text = file.read()
        for rule in tidy.RULES:
            self.assertRegex(text, r"tidy\.(rules_text\.)?" + rule.__name__ + r"\b")


if __name__ == "__main__":
    unittest.main()
