# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

# Tests for this machine only: scripts/test-foreign leaves out the label "native". native_tests(PROGRAM cases...)
function(native_tests program)
  list(JOIN ARGN ":" cases)
  set(KELVO_NATIVE_${program} "${cases}" PARENT_SCOPE)
endfunction()

# A signal above the 64 that this machine has, of MIPS's 127.
native_tests(thread_test Thread.takes_no_signal_from_its_first_moment_and_its_creator_those_that_it_took)

# qemu answers ENOSYS to the ioctls that it does not know, also where there is no device.
native_tests(blocking_driver_test Blocking_driver_test.closing_waits_for_the_driver_and_ends_who_waits)
native_tests(tuner_missing_device_test
             Missing_tuner.constructor_prints_each_failing_step_and_goes_on_and_below_verbosity_0_only_the_reason
             Missing_tuner.file_that_is_no_frontend_is_opened_and_fails_at_each_call)

# The shell of this machine runs `mv`, `cp`, `zic` and `date` for them. Libraries of another machine cannot be preloaded
# into it, which it says; it would work outside the sandbox.
native_tests(db_guide_export_test Guide_export_done.unwritable_target_is_reported_by_mv)
native_tests(db_failure_test System_calls.a_zone_is_compiled_and_copied_over_what_stands_there)
native_tests(db_timezone_test *)
native_tests(clock_test Zone_test.*)
native_tests(softdvb_time_test Virtual_time.children_have_the_same)

# Programs of this machine under the adapter: dvb-tools, other scanners, a browser; a shell, cat, date.
native_tests(softdvb_programs_test *)
native_tests(tools_receivers_test Channel_programs.* Recorded_channels.* Two_frontends.serve_another_program_as_well
             Devices/Receivers.find_at_least_what_other_programs_find/*)
native_tests(tools_scan_test Scan.a_full_disk_is_an_error)
native_tests(tools_epg_update_command_test Epg_update.no_half_made_database_stays_when_there_is_no_room
             Epg_update.a_full_disk_is_one_line_and_the_guide_stays_sound)
native_tests(tools_device_gone_test Device_gone.ends_a_measurement
             Device_gone.is_waited_for_by_a_watch_which_goes_on)
native_tests(tools_watch_test Watch.says_when_there_is_no_lock_and_when_it_comes
             Watch.says_when_quality_is_lost_and_back Watch.a_reader_that_goes_away_ends_it)
native_tests(tools_watch_clock_test Watch_clock.says_by_how_much_the_clock_was_set
             Watch_clock.says_that_a_clock_before_2000_is_set Watch_clock.says_once_what_is_done_at_every_time_table
             Watch_clock.says_that_a_zone_could_not_be_set Watch_clock.takes_the_zone_of_the_network_that_is_named
             Watch_clock.says_which_zone_was_set)
native_tests(tools_play_test Play.waits_for_a_signal_that_is_lost Play.writes_the_whole_multiplex
             Play.ends_when_the_device_is_pulled_out Play.ends_quietly_when_its_reader_goes_away
             Play.ends_with_whole_packets_at_ctrl_c Play.writes_into_a_named_pipe)
native_tests(softdvb_launcher_test Launcher.keeps_the_root_it_was_given
             Control.changes_a_running_adapter_from_the_shell)
native_tests(softdvb_log_test Log.tells_the_names_of_errors Log.records_clocks_that_are_set
             Log.is_written_by_all_processes_and_emptied_at_the_start)
native_tests(softdvb_processes_test Processes.programs_started_see_the_devices)
native_tests(softdvb_sandbox_test Sandbox.holds_for_shell_commands Sandbox.the_zone_compiler_works_in_it)

# A million records: two minutes are too short for the emulator.
native_tests(tools_trace_test Trace_convert.a_million_records_are_all_in_tdi_and_log
             Trace_convert.a_million_records_are_all_in_json)
