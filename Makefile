# make run: install what is missing, build, and run Zelkor (the headless demo without a display).
# make test: the same set-up, then the whole test suite, with the tree's formatting
#   and its layers checked.
#   (also the suite under AddressSanitizer and UndefinedBehaviorSanitizer, the
#   threaded tests under ThreadSanitizer, and a short run of each fuzz target)
# make bench: the published speed figures, each against its target.
# make bench-long: peak memory tagging a 2-hour track.
# make sameness: the full table comparing the looped clip with one branch per copy.
# make fuzz: each fuzz target for FUZZ_SECONDS.
# make install: the programs, resources, desktop entry, icons, man pages and
#   completions under PREFIX (DESTDIR=... stages them elsewhere).
# make uninstall: removes exactly what the last make install wrote.
# make deb: the Debian package in build/package/, checked by lintian.

BUILD ?= build
JOBS ?= $(shell nproc)
PREFIX ?= /usr/local
FUZZ_SECONDS ?= 120
SMOKE_SECONDS ?= 15
# Tests with threads of their own (in the test or in the zelkor-tag it runs),
# run again under ThreadSanitizer. Not the window's drawing: Qt's raster engine
# hands parts of it to a pool of threads it synchronises out of the sanitizer's sight.
THREADED_TESTS := ZelkorTagTest BatchRunnerTest
THREADED_CASES := ^(Batch(Runner\.a|Core\.)|ZelkorTag\.)
SANITIZER_ENV := ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	LSAN_OPTIONS=suppressions=$(CURDIR)/tests/sanitizers/lsan.supp:print_suppressions=0 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:die_after_fork=0:suppressions=$(CURDIR)/tests/sanitizers/tsan.supp

.PHONY: all deps configure build run demo test format-check test-asan test-tsan fuzz fuzz-smoke bench bench-long sameness install uninstall deb format clean

all: build

deps:
	@scripts/deps

configure: deps
	@test -f $(BUILD)/build.ninja || cmake -S . -B $(BUILD) -G Ninja

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

run: build
	@if { [ -n "$$DISPLAY" ] || [ -n "$$WAYLAND_DISPLAY" ]; } && [ -x $(BUILD)/bin/zelkor ]; then \
		$(BUILD)/bin/zelkor; \
	else \
		scripts/demo $(BUILD)/bin/zelkor-tag demo; \
	fi

demo: build
	@scripts/demo $(BUILD)/bin/zelkor-tag demo

test: build format-check
	@ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)
	@$(MAKE) --no-print-directory test-asan test-tsan fuzz-smoke

# The tree as the project's .clang-format lays it out; make format fixes it.
format-check: deps
	@git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run -Werror

test-asan: deps
	@test -f build-asan/build.ninja || cmake -S . -B build-asan -G Ninja -DZELKOR_BENCH=OFF -DZELKOR_SANITIZE=address,undefined
	@cmake --build build-asan -j $(JOBS)
	@$(SANITIZER_ENV) ctest --test-dir build-asan --output-on-failure -j $(JOBS)

test-tsan: deps
	@test -f build-tsan/build.ninja || cmake -S . -B build-tsan -G Ninja -DZELKOR_BENCH=OFF -DZELKOR_SANITIZE=thread
	@cmake --build build-tsan -j $(JOBS) --target zelkor-tag $(THREADED_TESTS)
	@$(SANITIZER_ENV) ctest --test-dir build-tsan --output-on-failure -R '$(THREADED_CASES)'

build-fuzz/build.ninja:
	@CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DZELKOR_FUZZ=ON -DZELKOR_TESTS=OFF -DZELKOR_BENCH=OFF

fuzz-smoke: deps build-fuzz/build.ninja
	@cmake --build build-fuzz -j $(JOBS) --target AnalysisFuzz KeepFuzz NamesFuzz WavFuzz
	@scripts/fuzz build-fuzz/bin $(SMOKE_SECONDS)

fuzz: deps build-fuzz/build.ninja
	@cmake --build build-fuzz -j $(JOBS) --target AnalysisFuzz KeepFuzz NamesFuzz WavFuzz
	@scripts/fuzz build-fuzz/bin $(FUZZ_SECONDS)

bench: build
	@$(BUILD)/bin/zelkor-bench $(BUILD)/bin

# Peak memory on a 2-hour track, quiet and loud at HIGH (a few minutes).
bench-long: build
	@bench/long-track $(BUILD)/bin

# Every rate, layout and interval, up to 720 placements (about an hour).
sameness: build
	@ZELKOR_FULL_SAMENESS=1 $(BUILD)/tests/EngineRenderTest --gtest_filter='EngineSameness.*'

install: build
	@cmake --install $(BUILD) --prefix $(PREFIX)

uninstall:
	@cmake -DMANIFEST=$(BUILD)/install_manifest.txt -P packaging/Uninstall.cmake

deb: build
	@rm -f $(BUILD)/package/*.deb
	@cd $(BUILD) && cpack
	@lintian --fail-on error $(BUILD)/package/*.deb

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	@rm -rf $(BUILD) build-asan build-tsan build-fuzz demo
