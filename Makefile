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

.PHONY: asan tsan
asan tsan: bootstrap ## the tests of the core under a sanitizer
	$(call compile,$@)
	ctest --test-dir build/$@ --output-on-failure -j2

.PHONY: format
format: ## clang-format over everything
	$(sources) | grep -v ErrorCatalogue.inc | xargs clang-format -i

.PHONY: clean
clean: ## removes what was built; keeps the media worker
	rm -rf build

.PHONY: bootstrap
bootstrap:
	scripts/bootstrap
