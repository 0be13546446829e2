// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <memory>
#include <vector>

#include "base/activity.h"
#include "base/export.h"
#include "base/messages.h"
#include "base/receiver_profile.h"
#include "base/types.h"
#include "db/sdbl.h"
#include "filter/lost_sections.h"
#include "filter/section_filter.h"
#include "kelvo/device_event.h"
#include "kelvo/main_thread.h"
#include "kelvo/scan_end.h"
#include "si/broadcast_time.h"
#include "si/guide_change.h"
#include "si/siparse.h"
#include "trace/timedoc.h"
#include "tuner/reception.h"
#include "tuner/tuner.h"

// Codes of the change callback; several may be joined.
enum : int {
  DB_STREAMS_CHANGED = 1,      // elementary streams of a channel were added or deleted
  DB_CHANNELS_CHANGED = 2,     // channels were added, lost or found again
  DB_EPG_GROWN = 4,            // more than 20 events stored since this was last said
  DB_EXPORTED = 8,             // an export asked for with export_db is done
  DB_CHANNELS_REFRESHED = 16,  // known channels follow the air now: names, numbers, ...; Scan_end::channel_changes.
                               // Only where the profile refreshes; of requests without a channel, too
};

// One DVB-T adapter: what a host creates to find services, keep the channel list and collect the guide.
//
//   Sdbl database("/dvbfiles/dvb.db");
//   Kelvo kelvo(0, 0, 0, &database, true, on_change);
//   kelvo.tune_to_freq(506000000, &context, on_scanned);
//
// It owns the tuner, the section filters, the parser and the worker thread of its adapter. The worker takes a request,
// scans the multiplex, merges what it found into the database, says so through the callbacks, and goes on with the
// guide; with a channel it also reads the PMTs again every 3 s and everything every 300 s.
//
// What surprises:
//   - The constructor tunes to 474 MHz. A channel request on the frequency already tuned does nothing, then too: use a
//     frequency request first.
//   - Frequency requests (without a channel) report only through `done`; codes 1 and 2 of the change callback are for
//     channel requests.
//   - `done` may say 0 although nothing was stored (the scan timed out, or the demultiplexer could not be opened): look
//     into the database.
//   - The first scan of an empty database collects no events, because the list of services is made when tuning: repeat
//     the frequency request to fill the guide. With Receiver_profile::Guide::WHOLE it is stored behind the first merge.
//   - While scanning, a file /tmp/testsig with a hexadecimal number is removed and its number handed to the change
//     callback. A link, or anything else that is no plain file, is left alone.
//
// Threads: create, use and destroy it on the host's threads. Every operation is any-thread and returns at once, but for
// those that tune (tune_to_freq and tune_to without a channel, set_tuner) or write (export_channel_db). The latter
// alone waits, up to two seconds a statement, while another program keeps the database locked; a tuning uses what was
// stored when it could last be read, and what it finds is stored later. Callbacks and listeners come from the worker
// (the event callback from the tuner's monitor): they must not destroy the Kelvo nor disconnect its tuner, and should
// return soon. They may make requests, ask for readings and use the database. Do not call set_tuner while a request is
// under way. docs/threads.md has the whole table.
class KELVO_EXPORT Kelvo {
 public:
  using change_callback_t = void (*)(int code);
  using request_callback_t = void (*)(void* data, int result);
  using scan_listener_t = void (*)(void* data, const Scan_end& end);
  using time_listener_t = void (*)(void* data, const Broadcast_time& time);
  using guide_listener_t = void (*)(void* data, const std::vector<Guide_change>& changes);
  using device_listener_t = void (*)(void* data, const Device_event& event);

  // `adapter` is the N of /dev/dvb/adapterN, 0 to 3, and the number of the scan tables. `database` is not owned and
  // outlives this object. Without a tuner (`tuner_connected` false) whatever stream arrives is scanned.
  // `db_change_callback` may be null. Missing devices, scan tables that cannot be made and a worker that cannot be
  // started are printed, not reported: requests are accepted then, too, and find nothing.
  Kelvo(int adapter, HF_CONN_ID connector, DVB_TYPE_ID type, Sdbl* database, bool tuner_connected,
        change_callback_t db_change_callback);

  // The same with a profile, of which a copy is kept: above is Receiver_profile::box(). With another one "tunes to 474
  // MHz", "150 ms" and the like of this page are what profile and Tuner::tune() say instead. A device that is missing
  // is not printed when the profile watches it; frontend_state() tells.
  Kelvo(int adapter, HF_CONN_ID connector, DVB_TYPE_ID type, Sdbl* database, bool tuner_connected,
        change_callback_t db_change_callback, const Receiver_profile& profile);

  // Ends the worker, at the start of its next pass, and deletes everything owned: parser, filters, tuner, worker; not
  // the database. Waits for a callback or an export that is running. A request that waits is dropped unanswered.
  // REQUIRES: no other thread uses the object any more.
  ~Kelvo();

  Kelvo(const Kelvo&) = delete;
  Kelvo& operator=(const Kelvo&) = delete;

  // What all instances print to standard error: see verbosity_kelvo in base/messages.h.
  void set_verbosity(int level);

  // Scans the multiplex at `freq` (Hz). `channel` is a row of kanalid to be watched, or -1 for the whole multiplex.
  //   channel -1: tunes now; 0 when there is no lock, else -1, and the worker calls `done(data, result)` later: 0 the
  //     scan has ended, -1 there is no MPEG stream (DVB-H, or no section within 6 s), or no memory was left for the
  //     scan, which then ends without a merge and untold. It is called only when `data` is not null; at every pass on
  //     DVB-H. `data` is not owned and is used until then.
  //   a channel: -1 at once; the worker tunes. `done` is never called, `data` is not kept. On a frequency that is tuned
  //     already nothing happens.
  // A new request replaces one that has not been answered, which then is not answered any more (an answer that the
  // worker has begun to give still arrives). A channel that changed before it was replaced is told with the next scan
  // of a channel.
  // A frequency request that fails to tune requests nothing, but it has taken the filters away: the scan under way ends
  // without a merge (its request is answered with 0), the guide stops, and the frontend stays on `freq`. Whoever wants
  // the old multiplex back asks for it again.
  int tune_to_freq(int freq, int channel, void* data, request_callback_t done);
  int tune_to_freq(int freq, void* data, request_callback_t done);

  // tune_to_freq with more than a frequency; see Tuner::tune. The multiplex's rows and answers carry Tuning_result::key
  // as their frequency. A channel's request keeps system and pipe for the worker. Any-thread.
  int tune_to(const Tuning_request& request, int channel, void* data, request_callback_t done);

  // Ends a tuning that waits, on whatever thread it was asked for, as one without lock. Any-thread.
  void cancel_tuning();

  // Reads everything of `channel`'s multiplex again, as a channel request does, also on the frequency that is tuned
  // already: the worker tunes, and the timers, the list of services and the guide begin anew. When the tuning fails the
  // scan goes on trying, as there. Replaces a request that has not been answered. Any-thread.
  void watch_again(int freq, int channel);

  // Who is told how each scan ended: once for each, before the request's answer and the change callback of the same
  // scan. A scan that is under way when the Kelvo is destroyed ends untold. Comes from the worker, with the same duties
  // as the other callbacks; `end` is valid during the call. Null for nobody. Any-thread; takes effect with the next
  // end.
  void set_scan_listener(scan_listener_t listener, void* data);

  // Who is told of each time table that was read, and of what it did to clock and zone. Otherwise as above.
  void set_time_listener(time_listener_t listener, void* data);

  // Who is told which events a section of the guide (EN 300 468, 5.2.4) has changed, once they are stored: never with
  // an empty list. While a guide is collected for the first time that is every event. Only where the profile collects
  // it whole. Otherwise as above.
  void set_guide_listener(guide_listener_t listener, void* data);

  // Who is told that the device has gone, and that it is back and tuned again. Only where the profile watches it.
  // Otherwise as above.
  void set_device_listener(device_listener_t listener, void* data);

  // Who is told what the worker does; see Activity_listener. Before-start: right after the construction, before the
  // first request.
  void set_activity_listener(const Activity_listener& listener);

  // Who gets the messages of all objects of the library; see Message_listener, of which a copy is kept. Before-start:
  // while no object of the library exists, or none is used by another thread.
  static void set_message_listener(const Message_listener& listener);

  // True when the last request has been answered or none was made. Never for a channel request, nor for a request with
  // null data unless there was no stream. Stays true until the worker picks a new request up. An answer of 0 is given
  // while this is still false, one of -1 when it is true already. Cannot fail.
  bool get_msg_state() const;

  // Pauses and resumes scanning; a request resumes it, too. The filters stop, the state of the scan is kept, nothing is
  // merged or answered for lack of data meanwhile, and the timers start anew on resuming. Takes effect at the worker's
  // next pass, at once as a rule. The same state again does nothing. Prints what it does. A filter that the device does
  // not stop or start is printed and keeps its state.
  void set_scan(bool on);

  // Deletes or creates the tuner. Any use of it by another thread ends first, so disconnecting may take 150 ms more
  // than ~Tuner while somebody tunes. A new tuner knows nothing of the one before: it is tuned to 474 MHz, has no event
  // callback, sends no events and forgets frequency and channel of the last request, so that the host asks for its
  // multiplex again. A device that is missing is printed; readings are then those of a Tuner without one. The same
  // state again does nothing. While another thread is in here, disconnecting waits for it, and connecting does nothing,
  // as if it had come before. Prints what it does at verbosity 3.
  void set_tuner(bool connect);

  // Replaces the contents of `progress` by one entry for each service whose guide is collected on the multiplex tuned;
  // see EIT_progress for when a guide is complete. Empty until a request has been picked up, and after the first scan
  // of an empty database. Has no effect on the scan and does not wait for it.
  void eit_progress(std::vector<EIT_progress>* progress) const;

  // True once the broadcast has shown that the system clock is right, or it was past 1999 at the start. Where the
  // profile leaves the clock alone: whether the last time table agreed with it within 10 s.
  bool time_valid() const;

  // Copies the channel list to `file` in the caller's thread. Throws no_file_error when the temporary file beside the
  // channel file cannot be created, and leaves `file` alone then. What fails later, as for a `file` that cannot be
  // written, is printed only, and an old `file` stays. The scan goes on in any case. See Sdbl::backup_channel_database.
  void export_channel_db(const char* file);

  // Asks the worker to purge old events and copy the guide beside `file` (see Sdbl::backup_database); the change
  // callback gets 8 when it is done, also when it failed, which is printed. Several that are asked for at once are
  // written one after the other, each with a callback of its own. `full` has no effect. Copies `file`; without one (or
  // with null) nothing is written. Always returns 1.
  bool export_db(const char* file, bool full);
  // True until the last export asked for has been run; false in the callback that tells of it.
  bool export_db_in_progress() const;

  // Frontend readings, see Tuner: what cannot be read keeps its last good value. Without a tuner: 0 Hz, strength -24,
  // status 32, SNR 1, BER 0.1.
  int fe_freq();
  float fe_strength();
  int fe_status();
  float fe_snr();
  float fe_ber();

  // How the last tuning ended, the device, and the readings of its monitor; see Tuner. Empty values without a tuner. No
  // device access. Any-thread.
  Tuning_result last_tuning();
  Frontend_state frontend_state();
  Signal_readings signal();

  // Replaces the contents of `lost` by one entry for each PID that lost sections since the last request was picked up.
  // Any-thread.
  void lost_sections(std::vector<Lost_sections>* lost) const;

  // Who is told that reception is lost (0) or good again (1), see Tuner; that events begin, and their first state; that
  // they end. An event under way may still arrive after disable_tunerevents. Without a tuner they do nothing, and
  // reset_signal_monitor returns 0.
  void set_stb_event_callback(Tuner::event_callback_t callback);
  int reset_signal_monitor();
  void disable_tunerevents();

  // The worker's life: runs the scan loop of the Kelvo that `self` points to until it is being destroyed. Returns 0.
  // Called by KelvoMainThread alone.
  static int filter_read_thread(void* self);

  // For the library's own use.
  class Parts;
  Parts& parts() const;

 private:
  std::unique_ptr<Parts> parts_;
};
