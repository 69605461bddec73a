# make run: install what is missing, build, and run Zelkor (the headless demo without a display).
# make test: the same set-up, then the whole test suite.

BUILD ?= build
JOBS ?= $(shell nproc)

.PHONY: all deps configure build run demo test format clean

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

test: build
	@ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	@rm -rf $(BUILD) demo
