# The front door. Each verb works on a bare Debian 12 and installs what it needs itself.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_ARGS ?=
configure = cmake -S . -B $(1) -G Ninja $(2) $(CMAKE_ARGS)

.PHONY: help build test test-large demo test-page lint asan tsan bench bench-compare install clean

help:            ## this list
	@sed -n 's/^\([a-z-]*\):.*##  */\1\t/p' $(MAKEFILE_LIST) | expand -t 12

build:           ## library, engine and programs, in build/lib and build/bin
	@scripts/install-packages build
	@$(call configure,$(BUILD)) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

test:            ## build everything and run all tests
	@scripts/install-packages build test
	@$(call configure,$(BUILD),-DKALVRIN_TESTS=ON) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)
	@ctest --test-dir $(BUILD) -j $(JOBS) --output-on-failure

test-large:      ## transforms of up to 2^29 samples (12 GiB of memory, some minutes)
	@scripts/install-packages build test
	@$(call configure,$(BUILD),-DKALVRIN_TESTS=ON) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS) --target fft_large_test
	@$(BUILD)/bin/fft_large_test

demo: build      ## speech and music through real models: audio, pictures, a page to play with
	@scripts/install-packages demo
	@scripts/demo $(BUILD)

test-page: demo  ## the demonstration's page in a headless browser
	@scripts/install-packages page
	@/usr/bin/python3 tests/page/page_test.py $(BUILD)/demo/index.html

lint:            ## formatting, static analysis, direction of includes
	@scripts/install-packages build test lint
	@scripts/lint $(BUILD)

asan:            ## all tests under the address and undefined-behaviour sanitizers
	@scripts/install-packages build test
	@scripts/sanitized address $(BUILD)-asan $(JOBS)

tsan:            ## all tests under the thread sanitizer
	@scripts/install-packages build test
	@scripts/sanitized thread $(BUILD)-tsan $(JOBS)

bench:           ## speed beside FFTW and KissFFT, as a table and a plot
	@scripts/install-packages build bench
	@scripts/bench $(BUILD)-bench $(JOBS)

bench-compare:   ## the last two runs of bench side by side
	@for b in vector fft; do scripts/bench_report.py compare \
	  $(BUILD)-bench/bench-$$b.previous.json $(BUILD)-bench/bench-$$b.json; done

install: build   ## into PREFIX (default /usr/local)
	@cmake --install $(BUILD) $(if $(PREFIX),--prefix $(PREFIX))

clean:           ## remove the build folders
	rm -rf $(BUILD) $(BUILD)-asan $(BUILD)-tsan $(BUILD)-bench
