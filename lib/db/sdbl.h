// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "base/export.h"
#include "base/types.h"
#include "db/ca_pid.h"
#include "db/channel_change.h"
#include "db/database_error.h"
#include "db/durability.h"
#include "db/epg_cache.h"
#include "db/no_file_error.h"
#include "db/pmt_subtxt_lang.h"
#include "db/sql_cache.h"
#include "db/sql_query.h"
#include "db/stream_detail.h"

struct dvb_frontend_parameters;
struct sqlite3;
struct sqlite3_stmt;
struct timespec;

// The channel database and the programme guide beside it: two SQLite files behind one connection.
//
// The host creates one, hands it to the Kelvo of every adapter, and deletes it last. The channel file holds the tables
// kanalid (services), kanalid_lang, estreams and tuner_table; the guide file (the same path with its last extension
// replaced by "_epg.db") holds epglist and epglist_lang and is attached as `epg_db`. docs/database.md describes every
// column. Both files are created when they are missing; an existing table is used as it is, whatever its columns.
//
// What surprises:
//   - Unless asked for (Durability::FULL), neither file has a journal and nothing is synced, so a power cut may damage
//     them; hosts keep backups.
//   - Texts shorter than three bytes become empty on their way through sql_cache().
//   - Scan tables are TEMP tables of the connection: kanalid_scan_N, kanalid_lang_scan_N, estreams_scan_N of adapter N.
//
// Failures: unless an operation says otherwise, a statement that fails is printed ("ERROR: " at verbosity 0, "WARNING:
// " at 1), changes nothing, and the operation goes on with its next statement; nothing is rolled back. first_error()
// tells the first one that means that a file could not be written or read. Only files that cannot be opened throw,
// no_file_error. While the database is closed every statement fails (code 21).
//
// Threads: opening and closing belong to the host's thread, while no Kelvo uses the object. Operations that take a
// `dvbnr` are for the worker of that adapter (*worker-only*: one thread an adapter); everything else is any-thread.
// SQLite must be built thread-safe, which the constructor checks. Operations are short, except while another connection
// keeps a file locked: each statement then waits up to 2 s before it fails with code 5, and so do the operations of
// other threads behind it.
//
// Pointers: texts and lists that are handed in are read during the call only. Where an operation returns a new object,
// or takes one over, it says so.
//
// `freq` is a multiplex's centre frequency in Hz; with `hf_conn` and `dvb_type` it names a multiplex. A channel is the
// row number of its service in kanalid, which never changes.
class KELVO_EXPORT Sdbl {
 public:
  // --- Files -----------------------------------------------------------------------------------------------------

  // Opens or creates `db_file` and its guide file. Give a path with an extension: the guide's name is made by cutting
  // at the last dot of the whole path, directories included.
  // Throws no_file_error("Unable to open file") or ("Unable to open epg file %s"), and leaves nothing open. Paths of
  // 4096 bytes and more count as files that cannot be opened, and so do, with a printed error, an empty path (or null)
  // and one that begins with "file:". A guide file that cannot be attached (because it is damaged or locked) is
  // printed, and the channels can be used without it.
  //
  // Both files are read once to see whether they are sound, which takes 10 ms a megabyte on a desktop. A damaged one is
  // named in one error, remembered for first_error() (SQLITE_CORRUPT), and not written to: of the channel file what can
  // be read is read, and statements that write fail; the guide is not attached. A file that another program is writing
  // is not checked.
  explicit Sdbl(const char* db_file);

  // The same with a promise about kills and power cuts; above is Durability::NONE. It holds until the object's end, and
  // for files that this object has open alone or together with others that promise the same.
  Sdbl(const char* db_file, Durability durability);

  // Frees the statement cache and closes the files; prints an error when the host has closed them already.
  // REQUIRES: no Kelvo uses the object any more.
  ~Sdbl();

  Sdbl(const Sdbl&) = delete;
  Sdbl& operator=(const Sdbl&) = delete;

  // Opens the channel file again after close_db(), without the guide. Returns 1. Throws no_file_error and stays closed
  // when the file cannot be opened. The scan tables are gone. Prints an error when the file is open, and opens it again
  // all the same; the old connection is kept until the end. Before-start.
  int open_db();

  // Ends the statements, detaches the guide and closes. A connection that is still in use by somebody else is tried
  // five times, 10 ms apart, and then left; the object counts as closed in any case. A second call prints an error and
  // does nothing. Before-start.
  void close_db();

  bool db_opened() const;

  // Announces the end of a step of work at verbosity 3; prints an error when the database is closed. Writes nothing:
  // every statement has been handed to the system when it returns, which writes it to the disk when it likes.
  void flush();

  // Makes the scan tables of adapter `n`, 0 to 3, dropping those that are there; clear_temp_tables empties them. When a
  // statement fails, the other tables are still made or emptied. Worker-only, as what takes a `dvbnr`; before the
  // worker is started, its creator's.
  void create_temp_tables(int n);
  void clear_temp_tables(int n);

  // Deletes the events that started more than `age_sec` seconds ago, with their texts. With `vacuum`, it also compacts
  // the channel file, not the guide. Returns how many rows of both tables were deleted; rows that could not be deleted
  // stay and do not count.
  int remove_old_entries(int age_sec, bool vacuum);

  // Removes the events that started more than a day ago, and copies the guide onto the guide file that belongs to the
  // name set by set_backup_file_name(). The argument is not looked at. Without a name, prints an error and touches
  // nothing. When the temporary file in /dvbfiles cannot be opened or the copy fails, which is printed, the old copy
  // stays; otherwise the new one takes its place at once, and is on the disk. The exports of a process run one after
  // the other, and each is written; other processes do not disturb them. Kelvo::export_db runs it on the worker. Do not
  // name this database itself: its open guide file would be replaced.
  void backup_database(bool full);

  // Copies the channel file (without guide and scan tables) to `file`, by way of a temporary file beside the original.
  // Throws no_file_error when that cannot be created, and `file` is not touched. It does not throw for a `file` that
  // cannot be written: `mv` complains on standard error then. When the copy fails, which is a warning at verbosity 1,
  // an old `file` stays; where there was none, what there is of the copy is put there. Waits for an export that is
  // under way. When it returns, the copy is on the disk.
  void backup_channel_database(const char* file);

  // The first failure of this object's database since the last call of forget_errors(), or since the construction.
  // False, and `*error` cleared, when there was none. Any-thread.
  bool first_error(Database_error* error) const;
  void forget_errors();

  // The name that backup_database() uses, which is one for the object: a second call before the export replaces it.
  // Copied; null or empty for none, as at first.
  void set_backup_file_name(const char* file);

  // The network whose local time offset sets the time zone; "levira" at first. Compared with kanalid.network_name,
  // exactly. Copied; null is the empty name.
  void set_preferred_provider(const char* name);

  // Writes `path` with its last extension replaced by "_epg.db" into `out`, and returns `out`. A path without any dot
  // gives "_epg.db". Cannot fail. REQUIRES: strlen(path) < 4080 and `out` holds 4096 bytes.
  static char* mapto_epg_filename(char* out, const char* path);

  // --- Tables ----------------------------------------------------------------------------------------------------

  // Create one table, in the main file or (`temp`) for this connection only. Used for the master and the scan tables. A
  // table that is there already stays, and its columns are each printed as an error.
  void create_table_kanalid(const char* name, bool temp);
  void create_table_kanalid_lang(const char* name, bool temp);
  void create_table_estreams(const char* name, bool temp);

  // --- Statements ------------------------------------------------------------------------------------------------
  // `fmt` is formatted as by sqlite3_vmprintf: %Q quotes a text. Whatever did not come from this program goes through
  // %Q or a parameter, never through %s.

  // Formats, prepares on `conn`, steps once. Returns the failed prepare's code, else the step's: 101 done, 100 when the
  // statement returned a row (not read), other codes are errors (extended codes). The text of a printed error is always
  // that of the main connection.
  int sql_exec(sqlite3* conn, const char* fmt, ...);

  // Column `col` of the first row. Returns 0 when `*out` was set; 101 when there is no row; 1 for a wrong column or
  // type or a failed step. When the statement does not compile, sql_get_int returns the code of that and sql_get_txt 1.
  // But for 0, `*out` is untouched. Failures are printed at every verbosity.
  int sql_get_int(int* out, int col, const char* fmt, ...);
  int sql_get_txt(std::string* out, int col, const char* fmt, ...);

  // True exactly when there is a row; false, printed, when the statement fails.
  bool sql_row_exists(const char* fmt, ...);

  // Finds or compiles the statement `sql` for adapter `instance` (0 to 3; 0 for permanent tables), binds the arguments
  // and, with `run`, executes it once. Every `$name` takes the next argument as an int, every `@name` as a
  // const char*; names are for the reader, each occurrence is a parameter of its own, and neither sign may stand inside
  // a literal. The word DVBNR is replaced by the instance's digit.
  // Texts of fewer than three bytes are bound as the empty text.
  // Returns the statement, owned by the cache, or null (printed) when it does not compile or bind. A failed run is
  // printed, and the statement is returned all the same. With `run` false the caller steps it; the next use resets it.
  // Any-thread with `run`. Without it the statement is the caller's from then on, so no two threads may use the same
  // text for the same instance, and none may call check_cached_queries, free_prepared_queries or close_db meanwhile;
  // give each thread an instance or a text of its own. REQUIRES: pass no argument wider than int for a `$`.
  sqlite3_stmt* sql_cache(bool run, int instance, const char* sql, ...);

  // The cache's entry of `sql`, compiled for `instance` and owned by the cache, until free_prepared_queries; null when
  // it does not compile, which is printed, or when there is no such instance.
  SQL_query* lookup_insert_sql_query(const char* sql, int instance);

  // check_cached_queries resets the cached statements; free_prepared_queries ends and forgets them. Deliberately only
  // those of instances 0 to 2; close_db ends what is left. Neither fails. They wait for the library's own statements;
  // REQUIRES: no thread still uses what sql_cache (without `run`) or lookup_insert_sql_query have returned.
  void check_cached_queries();
  void free_prepared_queries();

  // --- Times -----------------------------------------------------------------------------------------------------
  // BCD values hold eight decimal digits, the lowest in the lowest four bits: dates 0xYYYYMMDD, times and durations
  // 0x00HHMMSS. Digits above 9 are not rejected, and digits beyond the eighth are lost.

  static unsigned bin_to_bcd(unsigned value);
  static int bcd_to_int(unsigned bcd);

  // Seconds since 1970, UTC; -1, printed, for what is no date or does not fit 32 bits.
  static int ymd_hms_to_tzepoch(int ymd_bcd, int hms_bcd);

  // Microseconds since `start` (CLOCK_REALTIME). Across a second's boundary up to 1 s too large. A time that does not
  // fit is given as the last that does.
  static int usec_to_now(const timespec* start);

  // Sets the box's zone to `offset_min` minutes east of UTC when the multiplex belongs to the preferred provider:
  // writes a zone source under /tmp/zoneinfo, compiles it with zic and copies the result to /dvbfiles/localtime.
  // `zone_name` is a country code as broadcast, `zone_nr` its region. A code that is not 1 to 8 letters or digits
  // changes nothing, nor does a /tmp/zoneinfo that is a link, a source that cannot be written or compiled, or a
  // database that cannot be read. The zone that counts as set already is this process's: TZ, or /etc/localtime, which
  // boxes make a link to /dvbfiles/localtime. (A TZ that names that file is read once by glibc, and the zone then set
  // again at each call.) Of threads that set it at the same time, one does after the other. Compares whole hours only:
  // negative half-hours, and 12 hours and more east, are set again each time.
  void update_system_timezone(int offset_min, const char* zone_name, int zone_nr, DVB_TYPE_ID dvb_type,
                              HF_CONN_ID hf_conn, int freq);

  // --- Writing what a scan finds ---------------------------------------------------------------------------------
  // All write the scan tables of adapter `dvbnr`. "Result code" is SQLite's, or 0 and 1 where the statement comes from
  // the cache (1: there was no statement; 0 also when its step failed, which is printed).

  // Stores a programme of the PAT. Returns the row's number, which later calls take as `channel`; when the row was not
  // stored, some number that is none of its own (0, or that of the last row).
  int pat_for_network(int dvbnr, DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, int pat_prnr, int ts_id,
                      int pmt_pid);

  // Stores running status and CA mode of a service. Returns its row, 0 when the PAT did not name it or it could not be
  // read.
  int sdt_for_service(int dvbnr, DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, int pat_prnr, int run_status,
                      int free_ca);

  // Stores one elementary stream: one row, or one for each entry of `subtxt`. Takes over the entries: they are deleted
  // and the list is emptied, also when rows were refused. Returns 1, always.
  int pmt_for_service(int dvbnr, int channel, int es_pid, int es_type, int es_subtype, const char* codec,
                      const char* languages, const char* lang_codes, int ca_sysid, int ca_pid,
                      std::list<PMT_subtxt_lang*>* subtxt);

  // The row of a programme: of the scan table when `state` is SCAN_PAT (and its PCR PID is stored), else of kanalid.
  // 0 when there is none or it could not be read.
  int pmt_channel_number(int dvbnr, DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, int pat_prnr, int pcr_pid,
                         SCAN_STATE state);

  // Sets an integer column of all services of the multiplex. Returns the first one's row, 0 when there is none or it
  // could not be read.
  int nit_for_network(int dvbnr, int dvb_type, int hf_conn, int freq, const char* column, int value);

  // Stores the logical channel number of a service, on whichever frequency of this input it was found. Result code.
  int nit_lcn(int dvbnr, int dvb_type, int hf_conn, int ts_id, int onet_id, int serv_id, int lcn);

  // Store the network's name, and its name in one language (ISO 639 code). Result codes.
  int nit_network_name(int dvbnr, int dvb_type, int hf_conn, int freq, int netid, const char* name);
  int nit_multilingual_network_name(int dvbnr, int dvb_type, int hf_conn, int freq, int net_id, const char* lang,
                                    const char* name);

  // Write one column of one row. `table` and `column` are names of the schema, never anything from outside; the text is
  // quoted. Result codes: 101 when it was written, or when there is no such row. The lang forms find the row by owner
  // and language; where there is none, append does nothing (101) and modify makes it. Any-thread.
  int append_table_oid(int oid, const char* table, const char* column, const char* text);
  int modify_table_oid(int oid, const char* table, const char* column, const char* text);
  int modify_table_oid(int oid, const char* table, const char* column, int value);
  int append_lang_table_oid(int source_oid, const char* table, const char* lang, const char* column, const char* text);
  int modify_lang_table_oid(int source_oid, const char* table, const char* lang, const char* column, const char* text);

  // --- Reading the channel list ----------------------------------------------------------------------------------

  // Programme number of a channel, -1 (printed) when it is not on `freq` or cannot be read; frequency of a channel in
  // Hz, -1 when there is none or it cannot be read.
  int get_pat_prnr(int channel, int freq);
  int get_freq(int channel);

  // Name of a service; empty when there is none or it cannot be read. A new string, never null, which the caller
  // deletes.
  std::string* get_serv_name(DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, int pat_prnr);

  // Appends the scrambled streams of a channel to `pids`; the caller owns the new entries. Returns 0; 1 when there was
  // no statement and nothing was appended; or the code of a failure on the way, with what was read until then appended.
  int fill_pids_for_channel(int channel, std::vector<CA_pid*>* pids);

  // What the PMT of a channel says of its streams, in words, and all conditional-access systems; empty where no
  // receiver whose profile names streams (Receiver_profile::name_streams) has scanned it, or when it cannot be read,
  // which is printed. Any-thread.
  Programme_streams read_streams(int channel) const;

  // Services of multiplexes that are received no more: `freqs` were tried just now and did not lock. One of them that
  // has been found elsewhere meanwhile, as a newer channel with the same ids, or the same service id and name in the
  // same network, has moved: its channel gets the new place, with streams and names, and the newer channel is the lost
  // one. Others stay as they are. For hosts that scan a band with Receiver_profile::refresh, at the end; what a scan
  // finds gone is settled by itself. One transaction. Replaces the contents of `changes` by what became of the
  // channels. Returns how many moved; -1, printed and with nothing changed, when the file could not be written.
  // Any-thread.
  int keep_moved_channels(DVB_TYPE_ID type, HF_CONN_ID connector, const std::vector<int>& freqs,
                          std::vector<Channel_change>* changes);

  // --- Tuning parameters -----------------------------------------------------------------------------------------

  // Stores the parameters of a terrestrial delivery system descriptor (EN 300 468, 6.2.13.4; field values as broadcast,
  // `freq` in Hz) for the next tuning. Values that the frontend interface has no name for store nothing (warning).
  // Returns 0, also when nothing could be stored. Deliberately, a stored line is never updated, and connector and type
  // are exchanged in look-ups: see docs/quirks.md.
  int terrestrial_tuner_info(DVB_TYPE_ID type, HF_CONN_ID connector, int freq, int bandwidth, int constellation,
                             int hierarchy, int code_rate_hp, int code_rate_lp, int guard_interval,
                             int transmission_mode);

  // Fills `out`, which is the caller's, with the parameters stored for `freq`. Returns non-zero when it was filled;
  // also, with `out` untouched and a warning, when the database fails. 0, and `out` untouched, when nothing is stored.
  int fill_frontend_control(DVB_TYPE_ID type, HF_CONN_ID connector, int freq, dvb_frontend_parameters* out);

  // --- Merging a finished scan -----------------------------------------------------------------------------------

  // Brings kanalid, kanalid_lang and estreams up to date with the scan tables of adapter `dvbnr`. SCAN_PAT compares
  // services and streams, SCAN_PMT streams only; another state is refused with an error. Channel numbers stay, lost
  // services are marked (scan_state 0), lost streams deleted. Known services are looked up by frequency and ids,
  // whatever their input, and their other columns are not refreshed. Returns a set of: 2 channels added or back, 1
  // channels lost, 32 streams added, 16 streams deleted. 0: no change, or an empty scan table. A service that stays
  // lost is counted again at every full scan. When the file might not have room for all of it, within its 8000 pages or
  // on its disk, the merge is refused whole: 0, one printed error, and the tables stay as they were for a later scan.
  // So it is when another program keeps the file locked for two seconds; the scan tables can be merged later. And when
  // there was no memory for a statement since clear_temp_tables(): services may be missing there that are on air.
  // Otherwise what could not be written does not count; the rest is merged all the same, and the next scan repairs it.
  int update_master_scan_data(int dvbnr, DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, SCAN_STATE state);

  // Marks the services of a multiplex as timed out (scan_state 2). Result code.
  int set_master_scan_timeout(DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq);

  // --- Programme guide -------------------------------------------------------------------------------------------

  // Returns 1 when the event is in `cache` unchanged, else 0. `*changed` tells that the event of this slot had another
  // event_id, and the new one is now remembered; `*overlap`, that another event covers its start. An event that is not
  // there is remembered. The cache belongs to the caller and owns its entries; those that are dropped are deleted here.
  // A null cache prints an error and gives 0.
  int lookup_epg_cache(std::vector<EPG_cache*>* cache, int ev_id, int start_epoch, int dur_sec, bool* changed,
                       bool* overlap);

  // Index of the event running at `t`, -1 for none. A null entry on the way prints an error and gives -1. REQUIRES:
  // sorted by cmp_epg_cache.
  int epg_cache_binary_search(std::vector<EPG_cache*>* cache, int t);

  // Stores an event of the channel of `sc`. Returns its row in epglist, -1 (printed) when it was refused. When the
  // guide file is near its 8000 pages or the disk is full, events that started more than a day ago are removed first;
  // if that frees too little, the event is refused (code 13), and the file stays sound. `replace` takes the place of an
  // event of the same start; `overlapping` first deletes what it overlaps, also when the event is then refused.
  int eit_for_service(DVB_TYPE_ID dvb_type, HF_CONN_ID hf_conn, int freq, int pat_prnr, SQL_cache* sc, int ymd_bcd,
                      int hms_bcd, int dur_bcd, long start_epoch, int dur_sec, int run_status, int free_ca, int ev_id,
                      std::string* content, std::string* rating, bool replace, bool overlapping);

  // Stores the texts of an event in one language. Returns 0; a refused row is printed as a warning and not stored.
  int insert_epglist_lang(int source_oid, const char* lang, const char* ev_name, const char* ev_desc,
                          const char* ext_desc, const char* ext_list);

  // Deletes the channel's events that [start_epoch, end_epoch) overlaps, from the table and from the cache of `sc`,
  // whose entries are deleted. Returns the code of the final reset, 0 when all is well. An event that cannot be deleted
  // from the table is taken out of the cache all the same.
  int delete_epglist_range(int channel, int start_epoch, int end_epoch, bool trace, SQL_cache* sc);

  // 1 when an event of the channel is running now, 0 when none is or the guide cannot be read. An event that starts
  // this very second does not count.
  int eit_info_available(int channel);

  // --- Services whose guide is collected -------------------------------------------------------------------------

  // Which service types (EN 300 468, table 87) get_eit_scan_list lists, and so whose guide is collected and whose PMTs
  // are read again. Default: 1 only, digital television; networks of today send 17, 22, 25 and 31 as well, and 2 and 10
  // for radio. Copies `n` values, 0 to 255 (others name no service and are left out); null or nothing left restores the
  // default. Takes effect when the next list is built, at the next tuning. Cannot fail. Any-thread.
  void set_eit_service_types(const int* types, int n);

  // Appends one new entry for each service of the multiplex whose type is collected (see above) to `list`, with its
  // stored events, and returns `list`. The list owns them until clear_eit_scan_list. Any state but SCAN_EIT prints an
  // error, and the list is built all the same; when the database fails, from what could be read. An entry whose timer
  // cannot be made is listed without one, printed. Worker-only, as are the next two.
  std::list<SQL_cache*>* get_eit_scan_list(int dvbnr, int dvb_type, int hf_conn, int freq, std::list<SQL_cache*>* list,
                                           SCAN_STATE state);

  // Starts a new round: every entry active, nothing done, timers at 10 s. The event caches stay. Cannot fail.
  void reset_eit_scan_list(std::list<SQL_cache*>* list);

  // Deletes all entries, with their timers and events, and empties the list. Cannot fail.
  void clear_eit_scan_list(std::list<SQL_cache*>* list);

  // For the library's own use.
  class Parts;
  Parts& parts() const { return *parts_; }

 private:
  std::unique_ptr<Parts> parts_;
};
