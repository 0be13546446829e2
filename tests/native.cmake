# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

# Tests for this machine only: scripts/test-foreign leaves out the label "native". native_tests(PROGRAM cases...)
function(native_tests program)
  list(JOIN ARGN ":" cases)
  set(KELVO_NATIVE_${program} "${cases}" PARENT_SCOPE)
endfunction()

# A signal above the 64 that this machine has, of MIPS's 127.
native_tests(thread_test Thread.takes_no_signal_from_its_first_moment_and_its_creator_those_that_it_took)

# The shell of this machine runs `mv`, `cp`, `zic` and `date` for them. Libraries of another machine cannot be preloaded
# into it, which it says; it would work outside the sandbox.
native_tests(db_guide_export_test Guide_export_done.unwritable_target_is_reported_by_mv)
native_tests(db_failure_test System_calls.a_zone_is_compiled_and_copied_over_what_stands_there)
native_tests(db_timezone_test *)
native_tests(clock_test Zone_test.*)
native_tests(softdvb_time_test Virtual_time.children_have_the_same)

# Programs of this machine under the adapter: dvb-tools, other scanners, a browser.
native_tests(softdvb_programs_test *)
