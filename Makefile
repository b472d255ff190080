# A front door; CMake does the work. CI sets KESTROVA_WERROR=ON.
KESTROVA_WERROR ?= OFF
export KESTROVA_WERROR
# Where scripts/bootstrap puts Node.js when the machine's own is missing or too old.
export PATH := $(CURDIR)/.tools/bin:$(PATH)
JOBS ?= $(shell nproc)

configure = cmake --preset $(1) -DKESTROVA_WERROR=$(KESTROVA_WERROR)
compile = $(call configure,$(1)) && cmake --build build/$(1) -j $(JOBS)
sources = git ls-files --cached --others --exclude-standard '*.h' '*.cpp' '*.inc'

.PHONY: help
help: ## this list
	@sed -n 's/^\([a-z -]*\):.*## /  make \1\t/p' $(MAKEFILE_LIST) | expand -t 18

.PHONY: demo
demo: bootstrap ## two participants meet on this machine for ten seconds
	$(call configure,release) --log-level=WARNING
	cmake --build build/release -j $(JOBS) --target kestrova-meet
	scripts/demo

.PHONY: build
build: bootstrap ## compiles everything into build/release
	$(call compile,release)

.PHONY: test
test: build ## tests of the service and of the library
	npm --prefix server test
	ctest --test-dir build/release --output-on-failure -j2

.PHONY: bench
bench: build ## the benchmarks
	@set -e; for program in $$(find build/release/bench -maxdepth 2 -type f -perm -u+x | sort); do \
	  echo "== $$program"; $$program; done

.PHONY: test-again
test-again: build ## the whole suite three times while two busy loops take the processors
	scripts/test-again 3

# The programs whose threads and lifetimes are ours; of the whole meetings, the racing ones.
sanitized = tests/kestrova_unit_tests tests/platform/socketio/kestrova_socketio_tests \
  tests/platform/mediasoup/kestrova_mediasoup_tests tests/integration/meeting/kestrova_meeting_tests
export TSAN_OPTIONS ?= suppressions=$(CURDIR)/tests/tsan.supp

.PHONY: asan tsan
asan tsan: bootstrap ## unit, socket, media and racing tests under a sanitizer
	$(call configure,$@) && cmake --build build/$@ -j $(JOBS) --target $(notdir $(sanitized))
	@set -e; for program in $(sanitized); do echo "== $$program"; case $$program in \
	  *meeting_tests) build/$@/$$program --gtest_filter='RacesTest.*';; *) build/$@/$$program;; esac; done

SECONDS_EACH ?= 60
.PHONY: fuzz
fuzz: bootstrap ## the fuzzers, each for SECONDS_EACH (60); needs clang
	cmake --preset fuzz && cmake --build build/fuzz -j $(JOBS) --target fuzz_fastws_decoder fuzz_wire_client
	@set -e; for name in fastws_decoder wire_client; do mkdir -p build/fuzz/corpus/$$name; \
	  build/fuzz/fuzz/fuzz_$$name -entropic=0 -max_len=256 -max_total_time=$(SECONDS_EACH) -artifact_prefix=build/fuzz/ \
	  build/fuzz/corpus/$$name fuzz/seeds/$$name; done

.PHONY: format
format: ## clang-format over everything
	$(sources) | grep -v ErrorCatalogue.inc | xargs clang-format -i

.PHONY: clean
clean: ## removes what was built; keeps the media worker
	rm -rf build

.PHONY: bootstrap
bootstrap:
	scripts/bootstrap
