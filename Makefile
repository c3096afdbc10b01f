# The front door. Each verb works on a bare Debian 12 and installs what it needs itself.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_ARGS ?=
# ARCH=arm64: build and test for that processor on this machine, in a folder of its own.
ARCH ?=
ifeq ($(ARCH),arm64)
BUILD := $(BUILD)-arm64
CMAKE_ARGS += -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/arm64.cmake
export CMAKE_ARGS
else ifneq ($(ARCH),)
$(error ARCH is arm64 or empty, not '$(ARCH)')
endif
configure = cmake -S . -B $(1) -G Ninja $(2) $(CMAKE_ARGS)

.PHONY: help build test app test-large test-embed test-examples test-plugins test-app test-cpus soak demo test-page train eval lint lint-all \
        lint-quick check-all asan tsan bench bench-compare fuzz fuzz-long coverage test-batch deb \
        test-deb dist dist-again test-dist dist-windows test-windows docs mutants install clean

help:            ## this list
	@sed -n 's/^\([a-z-]*\):.*##  */\1\t/p' $(MAKEFILE_LIST) | expand -t 15

build:           ## library, engine and programs, in build/lib and build/bin; ARCH=arm64: for that, in build-arm64
	@scripts/install-packages build $(ARCH)
	@$(call configure,$(BUILD)) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

test:            ## build everything and run all tests; ARCH=arm64: those for that processor, emulated, an hour
	@scripts/install-packages build test $(ARCH)
	@$(call configure,$(BUILD),-DKALVRIN_TESTS=ON) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)
	@$(if $(ARCH),scripts/test-$(ARCH) $(BUILD) $(JOBS),ctest --test-dir $(BUILD) -j $(JOBS) --output-on-failure)

app:             ## the program with a window and the VST3 plugin, in build/bin and build/lib; two minutes more
	@scripts/install-packages build app
	@$(call configure,$(BUILD),-DKALVRIN_APP=ON) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

test-large:      ## transforms of up to 2^29 samples (12 GiB of memory, some minutes)
	@scripts/install-packages build test
	@$(call configure,$(BUILD),-DKALVRIN_TESTS=ON) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS) --target fft_large_test
	@$(BUILD)/bin/fft_large_test

test-embed:      ## examples/embed, a host that builds the library as a part of itself
	@scripts/install-packages build
	@tests/docs/embed_test.sh $(BUILD)-embed $(JOBS)

test-examples: build ## the other projects of examples/, built against what is installed, and run
	@scripts/install-packages build examples
	@scripts/try-examples $(BUILD)

test-plugins:    ## the plugins in real hosts: ffmpeg, JACK, PipeWire, the validators
	@scripts/install-packages build plugins
	@$(call configure,$(BUILD)) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS) --target all models
	@PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 tests/plugins/hosts/check.py $(BUILD)

# PICTURES=docs/images: screenshots of it, too.
test-app:        ## the VST3 plugin in a host; the program without a screen: mouse, keyboard, what JACK records
	@scripts/install-packages build test app screen
	@$(call configure,$(BUILD),-DKALVRIN_APP=ON -DKALVRIN_TESTS=ON) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS) --target all models
	@xvfb-run -a ctest --test-dir $(BUILD) -R '^(vst3|app)_test$$' --output-on-failure
	@/usr/bin/python3 tests/app/window_test.py $(BUILD) $(PICTURES)

test-cpus:       ## the tests on emulated processors from before AVX, and on one with AVX-512; 47 minutes of a core
	@scripts/install-packages build test cpus
	@$(call configure,$(BUILD),-DKALVRIN_TESTS=ON) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)
	@scripts/old-processors $(BUILD) long $(JOBS)
	@scripts/new-processor $(BUILD)

soak: FRAMES ?= 1e8
soak:            ## a stream of 10^8 frames (FRAMES=1e7: fewer) twice; STREAMS=1000: many at once
	@scripts/install-packages build test
	@$(call configure,$(BUILD),-DKALVRIN_TESTS=ON) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS) --target soak
	@$(BUILD)/bin/soak $(if $(STREAMS),--streams $(STREAMS) $(SECONDS),$(FRAMES))

demo: build      ## speech and music through real models: audio, pictures, a page to play with
	@scripts/install-packages demo
	@scripts/demo $(BUILD)

test-page: demo  ## the demonstration's page in a headless browser
	@scripts/install-packages page
	@/usr/bin/python3 tests/page/page_test.py $(BUILD)/demo/index.html

test-batch: build ## the array job and the line for GNU parallel of docs/batch.md; as root
	@scripts/install-packages batch
	@cmake --build $(BUILD) --target models
	@tests/docs/batch_test.sh $(BUILD)

# Debian's own Python is the one that python3-torch is for. Audio and checkpoints are kept outside of the tree, and
# training goes on where it was interrupted.
TRAIN ?= $(or $(XDG_CACHE_HOME),$(HOME)/.cache)/kalvrin/train
WORKERS = 1
train eval: PYTHON = /usr/bin/python3
train:           ## the model for speech and music, from packages; 32 hours of one core, WORKERS=2 uses two
	@scripts/install-packages train
	@$(PYTHON) models/separator/data.py $(TRAIN)
	@$(PYTHON) models/separator/train.py $(TRAIN) --workers $(WORKERS)
	@cp $(TRAIN)/checkpoint.pt $(TRAIN)/separator.pt
	@$(PYTHON) models/separator/export.py $(TRAIN)/separator.pt $(TRAIN)/separator.onnx
	@cp $(TRAIN)/separator.onnx models/separator/separator.onnx
	@cp $(TRAIN)/log.csv models/separator/training.csv
	@$(PYTHON) models/separator/plots.py training models/separator/training.csv docs/images/training.png

eval: build      ## what that model reaches on untrained recordings, as tables and a plot
	@scripts/install-packages train
	@$(PYTHON) models/separator/data.py $(TRAIN)
	@$(PYTHON) models/separator/evaluate.py $(TRAIN) models/separator/separator.onnx $(BUILD)/bin/kalvrin \
	  $(BUILD)/eval models/separator/README.md \
	  $$(cmp -s models/separator/separator.onnx $(TRAIN)/separator.onnx && echo $(TRAIN)/separator.pt)
	@$(PYTHON) models/separator/plots.py evaluation $(BUILD)/eval/evaluation.json docs/images/separator.png

lint: SCOPE = changed
lint-all: SCOPE = all
lint-quick: SCOPE = quick
lint:            ## formatting, shell scripts, includes, clang-tidy on what changed since it passed
lint-all:        ## the same with clang-tidy on everything, an hour
lint-quick:      ## the same with clang-tidy on the last commit, five minutes at most; what CI runs
lint lint-all lint-quick:
	@scripts/install-packages build test app lint
	@scripts/lint $(BUILD)-lint $(SCOPE)

# VERBS="lint soak": only these. The logs and the table stay in $(BUILD)-check.
check-all: VERBS ?= test lint asan tsan test-embed test-examples test-plugins test-app test-page test-batch test-deb test-cpus test-windows coverage soak
check-all:       ## all verbs that can fail, one after another, hours; a table at the end; as root
	@scripts/check-all $(BUILD)-check $(VERBS)

asan:            ## all tests under the address and undefined-behaviour sanitizers
	@scripts/install-packages build test
	@scripts/sanitized address $(BUILD)-asan $(JOBS)

tsan:            ## all tests under the thread sanitizer
	@scripts/install-packages build test
	@scripts/sanitized thread $(BUILD)-tsan $(JOBS)

# SECONDS to each of the targets in fuzz/, or to those in TARGETS.
fuzz: SECONDS ?= 60
fuzz-long: SECONDS ?= 7200
fuzz:            ## hostile and random input to the library, under sanitizers; some minutes
fuzz-long:       ## the same for half a day
fuzz fuzz-long:
	@scripts/install-packages build fuzz
	@scripts/fuzz $(BUILD)-fuzz $(JOBS) $(SECONDS) $(TARGETS)

coverage:        ## lines and branches of src/, hosting/, plugins/ and c/ that the tests run
	@scripts/install-packages build test fuzz
	@scripts/coverage $(BUILD)-coverage $(JOBS)

bench:           ## speed beside FFTW and KissFFT, as a table and a plot
	@scripts/install-packages build bench
	@scripts/bench $(BUILD)-bench $(JOBS)

bench-compare:   ## the last two runs of bench side by side
	@for b in vector fft dft; do scripts/bench_report.py compare \
	  $(BUILD)-bench/bench-$$b.previous.json $(BUILD)-bench/bench-$$b.json; done

mutants:         ## small changes of the library that tests have to notice, an hour or two; COUNT=20: fewer
	@scripts/install-packages build test
	@/usr/bin/python3 scripts/mutate $(BUILD)-mutants --count $(or $(COUNT),200) --jobs $(JOBS)

install: build   ## into PREFIX (default /usr/local)
	@cmake --install $(BUILD) $(if $(PREFIX),--prefix $(PREFIX))

dist:            ## what a release consists of, in dist: archives, plugins, Debian packages, the Python wheel
	@scripts/install-packages build app deb dist
	@scripts/dist $(BUILD)-dist $(JOBS) dist

dist-again: dist ## the same from a clone in another folder, all compiled again: the bytes have to be the same
	@scripts/dist-again $(JOBS) dist

test-dist: dist build ## each file of dist in bare systems of Debian 12 and 13, compared with the build tree; as root
	@scripts/install-packages deb dist
	@cmake --build $(BUILD) --target models
	@packaging/try-dist dist $(BUILD) $(SUITES)

dist-windows:    ## what Windows gets, in dist: a zip file and a Python wheel, by mingw-w64
	@scripts/install-packages build windows
	@scripts/dist-windows $(BUILD)-windows $(JOBS) dist

test-windows: build ## that zip file under Wine: hosts in C and C++, compared with Linux
	@scripts/install-packages windows wine
	@cmake --build $(BUILD) --target models
	@scripts/dist-windows $(BUILD)-windows $(JOBS) $(BUILD)-windows/dist
	@tests/windows/check $(BUILD) $(BUILD)-windows

docs:            ## the documentation as a static site with search, in build-docs/site; opened in a headless browser
	@scripts/install-packages docs page
	@scripts/docs $(BUILD)-docs
	@tests/docs/site_test.py $(BUILD)-docs/site

deb:             ## Debian packages, in build-deb/packages; ARCH=arm64: for that, in build-arm64-deb
	@scripts/install-packages build $(if $(ARCH),,app) deb $(ARCH)
	@scripts/deb $(BUILD)-deb $(JOBS) $(ARCH)

test-deb: deb    ## those packages installed and used in a bare system; as root
	@scripts/install-packages deb $(addsuffix -deb,$(ARCH))
	@packaging/try-packages $(BUILD)-deb/packages bookworm $(ARCH)

clean:           ## remove the build folders
	rm -rf $(BUILD) $(BUILD)-arm64 $(BUILD)-asan $(BUILD)-tsan $(BUILD)-bench $(BUILD)-fuzz $(BUILD)-coverage \
	  $(BUILD)-deb $(BUILD)-mutants $(BUILD)-lint $(BUILD)-check \
	  $(BUILD)-embed $(BUILD)-dist dist $(BUILD)-docs $(BUILD)-windows
