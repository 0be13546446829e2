# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

# The front door. Everything behind it is plain CMake; see CMakePresets.json.
.PHONY: help demo test install clean format lint memory asan tsan fuzz fuzz-smoke fuzz-long faults bench soak kill busy months threads cross guide-check doc deb deb-check units-check packages-%
.DEFAULT_GOAL := help

PREFIX ?= /usr/local
DESTDIR ?=
JOBS ?= $(shell nproc)
# Tests wait more than they work: one more than there are processors.
TEST_JOBS ?= $(shell expr $(JOBS) + 1)
SOURCES = $(shell git ls-files '*.cpp' '*.h' 2>/dev/null || find . -path ./build -prune -o \( -name '*.cpp' -o -name '*.h' \) -print)

help:
	@echo "make demo      build, scan a made-up network through the software adapter, print its channels"
	@echo "make test      build and run all tests"
	@echo "make install   install the library, its headers and the programs (PREFIX=$(PREFIX), DESTDIR=), with sudo where"
	@echo "               only root may write"
	@echo "make format    lay out all sources with clang-format"
	@echo "make lint      check layout, spelling, scripts, includes and code"
	@echo "make memory    the tests under AddressSanitizer, LeakSanitizer and UndefinedBehaviorSanitizer"
	@echo "make tsan      the tests under ThreadSanitizer"
	@echo "make fuzz      a minute of fuzzing of everything that hostile bytes reach; fuzz-smoke: a minute of each of it,"
	@echo "               fuzz-long: ten million executions of each, hours"
	@echo "make faults    every call on a device and every allocation of a scan fails, small disks are full"
	@echo "make bench     the benchmarks, with the wanted figures beside the measured ones"
	@echo "make soak      an hour of scans, looking for leaks and stalls"
	@echo "make kill      programs killed and power cut in the middle of their work, 300 times each"
	@echo "make busy      the tests ten times while the machine has eight processors' worth of other work"
	@echo "make months    30 days on a network that changes every hour, in virtual time"
	@echo "make threads   threads of a host on four adapters at random, and Kelvos destroyed at random moments; also under"
	@echo "               ThreadSanitizer"
	@echo "make cross     build for the set-top box, and run all tests for 32-bit MIPS and a big-endian machine"
	@echo "make doc       the headers and the pages of docs/ as HTML, in build/doc/html"
	@echo "make deb       Debian packages in build/deb; deb-check: twice, compared, looked at by lintian and blhc, and tried in a"
	@echo "               clean root"
	@echo "make units-check  systemd starts the units, in a machine of QEMU's"
	@echo "make guide-check  guide and server's pages in a browser: accessibility (axe-core, fetched by npm), ten thousand events"
	@echo "make clean     remove everything built"
	@echo
	@echo "Missing Debian packages are installed first (with sudo when not root); scripts/packages.txt lists them."

packages-%:
	@scripts/install-packages $(subst +, ,$*)

demo: packages-build
	@JOBS=$(JOBS) scripts/demo

test: packages-build+test
	@cmake --preset dev
	@cmake --build --preset dev -j$(JOBS)
	@scripts/promtool build/dev
	@ctest --preset dev -j$(TEST_JOBS)

asan tsan: packages-build+test
	@cmake --preset $@
	@cmake --build --preset $@ -j$(JOBS)
	@scripts/sanitized $@ -j$(JOBS)

memory: asan

install: packages-build
	@cmake --preset release -DKELVO_BENCH=OFF -DBUILD_TESTING=OFF -DCMAKE_INSTALL_PREFIX=$(PREFIX) -B build/install
	@cmake --build build/install -j$(JOBS)
	@scripts/install build/install "$(DESTDIR)" "$(PREFIX)"

format: packages-lint
	@clang-format -i $(SOURCES)

lint: packages-build+test+lint
	@scripts/lint

fuzz: packages-build+test+fuzz
	@scripts/fuzz

fuzz-smoke fuzz-long: packages-build+test+fuzz
	@scripts/fuzz --$(@:fuzz-%=%)

faults: packages-build+test
	@cmake --preset dev
	@cmake --build --preset dev -j$(JOBS) --target fault_matrix_test softdvb
	@scripts/faults build/dev

bench: packages-build+test+bench
	@cmake --preset release
	@cmake --build --preset release -j$(JOBS) --target kelvo_benches
	@bench/run build/release

soak: packages-build+test+bench
	@cmake --preset release
	@cmake --build --preset release -j$(JOBS) --target kelvo_benches
	@bench/soak build/release

kill: packages-build+test
	@cmake --preset dev
	@cmake --build --preset dev -j$(JOBS) --target db_ending_test softdvb
	@KELVO_KILLS=$${KELVO_KILLS:-300} build/dev/softdvb/softdvb -- build/dev/tests/db/db_ending_test --gtest_filter='*Endings*'

busy: packages-build+test+busy
	@cmake --preset dev
	@cmake --build --preset dev -j$(JOBS)
	@scripts/busy

months: packages-build+test+bench
	@cmake --preset release
	@cmake --build --preset release -j$(JOBS) --target kelvo_benches
	@bench/months build/release

threads: packages-build+test
	@for preset in dev tsan; do \
	  cmake --preset $$preset && cmake --build --preset $$preset -j$(JOBS) --target threads_test && \
	  KELVO_THREADS=$${KELVO_THREADS:-600} KELVO_DESTRUCTIONS=$${KELVO_DESTRUCTIONS:-500} \
	    build/$$preset/softdvb/softdvb --config build/$$preset/tests/kelvo/threads.conf -- \
	    build/$$preset/tests/kelvo/threads_test || exit 1; \
	done

guide-check: packages-build+test
	@cmake --preset dev
	@cmake --build --preset dev -j$(JOBS) --target tools_browser_test tools_serve_browser_test
	@scripts/guide-check build/dev

cross: packages-build+cross
	@scripts/cross-root mipsel s390x
	@cmake --preset mipsel
	@cmake --build --preset mipsel -j$(JOBS)
	@scripts/check-cross build/mipsel
	@JOBS=$(JOBS) TEST_JOBS=$(TEST_JOBS) scripts/test-foreign mipsel s390x

doc: packages-doc
	@scripts/doc
	@echo "build/doc/html/index.html"

deb: packages-build+deb
	@JOBS=$(JOBS) scripts/deb

deb-check: packages-build+deb
	@JOBS=$(JOBS) scripts/deb-check

units-check: packages-build+deb+units
	@JOBS=$(JOBS) scripts/units-check

clean:
	@rm -rf build
