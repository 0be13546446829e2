# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

# Tests for this machine only: scripts/test-foreign leaves out the label "native". native_tests(PROGRAM cases...)
function(native_tests program)
  list(JOIN ARGN ":" cases)
  set(KELVO_NATIVE_${program} "${cases}" PARENT_SCOPE)
endfunction()

# They run programs of this machine (a shell, dvb-tools, a browser) under `softdvb`, which has those of the other machine
# only.

# A signal above the 64 of this machine, of MIPS's 127.
native_tests(thread_test Thread.takes_no_signal_from_its_first_moment_and_its_creator_those_that_it_took)
