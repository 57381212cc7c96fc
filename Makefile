# Coilscope: build, test, demo and benchmarks. Every target installs what is
# missing first (Debian packages only).
JOBS ?= $(shell nproc)
BUILD := build
ASAN := build-asan
TSAN := build-tsan

.PHONY: all deps build build-asan build-tsan test demo bench fuzz install clean

all: build

deps:
	@bash scripts/install-deps.sh

build: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

build-asan: deps
	@cmake -S . -B $(ASAN) -DCMAKE_BUILD_TYPE=Debug -DCOILSCOPE_SANITIZE=address -DCOILSCOPE_ENGINE_ONLY=ON >/dev/null
	@cmake --build $(ASAN) -j $(JOBS)

build-tsan: deps
	@cmake -S . -B $(TSAN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCOILSCOPE_SANITIZE=thread -DCOILSCOPE_ENGINE_ONLY=ON >/dev/null
	@cmake --build $(TSAN) -j $(JOBS) --target threaded_tests capture_tests device_tests

# The whole suite, then the engine tests and fuzz corpora again under
# AddressSanitizer and UndefinedBehaviorSanitizer, then the threaded tests under
# ThreadSanitizer.
test: build build-asan build-tsan
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)
	@cd $(ASAN) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)
	@cd $(TSAN) && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -L threaded

# The device emulator on pseudo-terminals and a live capture from it.
demo: deps
	@echo "building coilscope, coilscope-cli and coilscope-sim (Release; output in build-release/demo-build.log)"
	@cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build build-release -j $(JOBS) --target coilscope coilscope-cli coilscope-sim > build-release/demo-build.log 2>&1 \
	  || { tail -40 build-release/demo-build.log; exit 1; }
	@bash scripts/demo.sh build-release

# The one-hour session runs at this speed. Through a pseudo-terminal the 5 ms
# reader keeps up with five times real speed on a two-core machine (eight
# hours of stream without a dropped frame); at ten times the emulator already
# drops a few per cent of the ASK frames the host did not read in time (it
# says how many), and the session then holds fewer events than a real one.
LIVE_SPEED ?= 5
bench: deps
	@cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build build-release -j $(JOBS)
	@for b in build-release/bench/*_bench; do echo "== $$b"; $$b; done
	@echo "== ASK decode rates"; ./build-release/bench/ask_decode_rates
	@echo "== ASK readers compared: edge finders A and B, the list decoder, both merged"; ./build-release/bench/ask_reader_compare 1000
	@echo "== ASK second reader alone and merged, per bit rate (2 kHz -8 % .. +8 %) and envelope: sent, exact, missed, false"; ./build-release/bench/ask_wire_rates 100000 both
	@echo "== FSK decode rates"; ./build-release/bench/fsk_decode_rates
	@echo "== FSK readers compared: the frame decoder alone and merged with the second reader"; ./build-release/tests/events_tests --gtest_filter='FskBothReaders.Every*' | grep -v '^\['
	@echo "== display filter over an eight-hour session (440 000 events)"; ./build-release/bench/filter_rates
	@echo "== the event window's display filter over an eight-hour session (440 000 events)"; ./build-release/bench/window_filter
	@echo "== timing checker over ten minutes of the emulator's session: share of a core live"; ./build-release/bench/timing_check_rates
	@echo "== real-time dock refresh"; ./build-release/bench/dock_refresh
	@echo "== wave panel refresh"; ./build-release/bench/wave_panel_refresh
	@echo "== capture records in formats 1 (plain), 2 (zstd) and 3 (written now): bytes a record per stream, MiB an hour, coding and loading one old record"; ./build-release/bench/record_rates 10
	@echo "== where the ASK records' bits go, and what an adaptive linear prediction of the envelope would leave"; ./build-release/bench/record_predictors 10
	@echo "== a selected packet's wave drawn"; ./build-release/bench/wave_view_draw
	@echo "== live capture at real speed (60 s)"; ./build-release/bench/live_capture cpu --seconds 60
	@echo "== the desktop application at real speed in Xvfb (60 s)"; bash bench/desktop_cpu.sh build-release 60
	@echo "== live capture, one hour of stream at --speed $(LIVE_SPEED)"; ./build-release/bench/live_capture memory --speed $(LIVE_SPEED)

# Coverage-guided fuzzing with libFuzzer (clang); FUZZ_SECONDS per target. As
# in the tests, the application log and settings of the fuzzed code go to
# folders of the build, not the user's.
FUZZ_SECONDS ?= 60
fuzz: deps
	@CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCOILSCOPE_SANITIZE=address -DCOILSCOPE_ENGINE_ONLY=ON -DCOILSCOPE_LIBFUZZER=ON >/dev/null
	@cmake --build build-fuzz -j $(JOBS) --target fuzz_targets
	@for f in build-fuzz/tests/fuzz/*_fuzz; do n=$$(basename $$f); mkdir -p build-fuzz/corpus-$$n; \
	  XDG_DATA_HOME=$(CURDIR)/build-fuzz/xdg-data XDG_CONFIG_HOME=$(CURDIR)/build-fuzz/xdg-config \
	  $$f -max_total_time=$(FUZZ_SECONDS) build-fuzz/corpus-$$n tests/fuzz/corpus/$${n%_fuzz}; done

# The desktop program, the terminal front end and the emulator, with a menu
# entry and an icon, under PREFIX (default /usr/local).
PREFIX ?= /usr/local
install: deps
	@cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=$(PREFIX) >/dev/null
	@cmake --build build-release -j $(JOBS) --target coilscope coilscope-cli coilscope-sim
	@cmake --install build-release

clean:
	rm -rf $(BUILD) $(ASAN) $(TSAN) build-release build-fuzz
