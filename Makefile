# Front door: each target installs what is missing, configures and builds as needed.
BUILD_DIR    ?= build/release
SAN_DIR      ?= build/sanitize
JOBS         ?= $(shell nproc 2>/dev/null || echo 2)
BENCH_DATA   ?= $(HOME)/.cache/obx_read_bench
CMAKE_FLAGS  ?=
PREFIX       ?= /usr/local
DESTDIR      ?=

.PHONY: all deps configure build run test sanitize bench install fuzz mutate examples clean

all: build

deps:
	@./scripts/install-deps.sh

$(BUILD_DIR)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)

$(SAN_DIR)/CMakeCache.txt: | deps
	cmake -S . -B $(SAN_DIR) -DCMAKE_BUILD_TYPE=Debug -DOBX_SANITIZE=ON -DOBX_BUILD_BENCH=OFF $(CMAKE_FLAGS)

configure: $(BUILD_DIR)/CMakeCache.txt

build: deps $(BUILD_DIR)/CMakeCache.txt
	cmake --build $(BUILD_DIR) -j $(JOBS)

# Builds only the two programs it runs, not the tests, fuzz targets and benchmarks.
run: deps $(BUILD_DIR)/CMakeCache.txt
	cmake --build $(BUILD_DIR) -j $(JOBS) --target obx_read obx_command
	./scripts/run-example.sh $(BUILD_DIR)/obx_read $(BUILD_DIR)/obx

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

sanitize: deps $(SAN_DIR)/CMakeCache.txt
	cmake --build $(SAN_DIR) -j $(JOBS)
	cd $(SAN_DIR) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

bench: build
	./scripts/bench.sh $(BUILD_DIR) $(BENCH_DATA)

# obx_read, obx, libobx.a with its headers, obx.pc, the CMake package and the man pages,
# below $(DESTDIR)$(PREFIX).
install: deps $(BUILD_DIR)/CMakeCache.txt
	cmake --build $(BUILD_DIR) -j $(JOBS) --target obx obx_read obx_command
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD_DIR) --prefix "$(PREFIX)"

fuzz:
	@./scripts/install-deps.sh fuzz
	JOBS=$(JOBS) ./scripts/fuzz.sh

# Rewrites the bundled example set with obx gen (a test checks it is what obx gen writes).
examples: deps $(BUILD_DIR)/CMakeCache.txt
	cmake --build $(BUILD_DIR) -j $(JOBS) --target obx_command
	rm -rf examples/data examples/schema
	./scripts/make-examples.sh $(BUILD_DIR)/obx examples

# Plants small faults in src/ one at a time and reports the share the tests catch.
# MUTANTS (60) faults, picked with MUTATE_SEED (1); MUTATE_PATHS narrows the files.
MUTANTS      ?= 60
MUTATE_SEED  ?= 1
MUTATE_PATHS ?=
mutate: deps
	./scripts/mutate.py --count $(MUTANTS) --seed $(MUTATE_SEED) --jobs $(JOBS) $(MUTATE_PATHS)

clean:
	rm -rf build
