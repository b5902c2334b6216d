# Entry points: make demo, make test, make test-asan, make test-tsan,
# make bench, make fuzz, make install PREFIX=..., make package, make format.
JOBS     ?= $(shell nproc)
PREFIX   ?= /usr/local
FUZZ_SECONDS ?= 60
CMAKE    ?= cmake
CTEST    ?= ctest

.PHONY: all deps demo test test-asan test-tsan bench fuzz install package format clean

all: build/.configured
	$(CMAKE) --build build -j $(JOBS)

# What the default build dir needs (library, examples, tests); the bench,
# fuzz and package builds install their own extra groups.
deps:
	@scripts/install-deps.sh build test

build/.configured: | deps
	$(CMAKE) -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCOM_BUILD_TESTS=ON
	@touch $@

demo: deps build/.configured
	$(CMAKE) --build build -j $(JOBS) --target com_demo
	./build/examples/com_demo

test: deps build/.configured
	$(CMAKE) --build build -j $(JOBS)
	cd build && $(CTEST) --output-on-failure -j $(JOBS)

build-asan/.configured: | deps
	$(CMAKE) -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DCOM_BUILD_TESTS=ON \
	  -DCOM_SANITIZE=address,undefined
	@touch $@

test-asan: deps build-asan/.configured
	$(CMAKE) --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  $(CTEST) --output-on-failure -j $(JOBS)

build-tsan/.configured: | deps
	$(CMAKE) -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCOM_BUILD_TESTS=ON \
	  -DCOM_SANITIZE=thread
	@touch $@

test-tsan: deps build-tsan/.configured
	$(CMAKE) --build build-tsan -j $(JOBS)
	cd build-tsan && TSAN_OPTIONS="halt_on_error=1 suppressions=$(CURDIR)/scripts/tsan.supp" \
	  $(CTEST) --output-on-failure -j $(JOBS)

build-bench/.configured: | deps
	@scripts/install-deps.sh bench
	$(CMAKE) -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DCOM_BUILD_BENCH=ON
	@touch $@

bench: build-bench/.configured
	$(CMAKE) --build build-bench -j $(JOBS)
	@mkdir -p build-bench/results
	@set -e; for b in $$(find build-bench/bench -maxdepth 2 -type f -name '*_bench' -perm -u+x | sort); do \
	  n=$$(basename $$b); echo "== $$n"; \
	  $$b --benchmark_out=build-bench/results/$$n.json --benchmark_out_format=json $(BENCH_ARGS); \
	done
	@echo "== ratios (peer time / com time; above 1 means com is faster)"
	@python3 scripts/bench-ratios.py build-bench/results/*.json

build-fuzz/.configured: | deps
	@scripts/install-deps.sh fuzz
	CC=clang CXX=clang++ $(CMAKE) -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCOM_FUZZ=ON -DCOM_BUILD_EXAMPLES=OFF
	@touch $@

fuzz: build-fuzz/.configured
	$(CMAKE) --build build-fuzz -j $(JOBS)
	@set -e; for f in $$(find build-fuzz/fuzz -maxdepth 1 -type f -name '*_fuzz' | sort); do \
	  n=$$(basename $$f _fuzz); mkdir -p build-fuzz/corpus/$$n; \
	  echo "== fuzzing $$n for $(FUZZ_SECONDS)s"; \
	  $$f -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	    -artifact_prefix=build-fuzz/corpus/$$n- build-fuzz/corpus/$$n fuzz/corpus/$$n; \
	done

install: | deps
	$(CMAKE) -S . -B build-install -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	$(CMAKE) --build build-install -j $(JOBS)
	$(CMAKE) --install build-install

# Debian packages libcom1, libcom-dev and com-tools in build-package/.
build-package/.configured:
	@scripts/install-deps.sh package
	$(CMAKE) -S . -B build-package -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr
	@touch $@

package: build-package/.configured
	$(CMAKE) --build build-package -j $(JOBS) --target com comctl archive_node archive_client
	cd build-package && cpack -G DEB
	@ls -1 build-package/*.deb

format:
	find common tests bench examples fuzz tools -name '*.h' -o -name '*.cpp' | xargs clang-format -i

clean:
	rm -rf build build-asan build-tsan build-bench build-fuzz build-install build-package
