# Friendly front for the CMake presets. Every target installs what is missing first.
.PHONY: all deps run test check asan tsan stress bench bench-index lint format clean

all: test

deps:
	@scripts/install-deps

# Indexes this repository into its default database, then shows the index and a search.
run: deps
	cmake --preset default
	cmake --build --preset default --target quilma-db python_package
	build/default/quilma-db index .
	build/default/quilma-db stats .
	build/default/quilma-db search --limit 5 'swap_index_from' .

test: deps
	cmake --preset default
	cmake --build --preset default
	ctest --preset default

asan: deps
	cmake --preset asan
	cmake --build --preset asan
	ctest --preset asan

tsan: deps
	cmake --preset tsan
	cmake --build --preset tsan
	ctest --preset tsan

check: test asan tsan

# The long runs: processes killed at 100 points of each long operation; the service's
# processes on one index file for ten minutes, with builds of 5000 files (about 14 MiB).
stress: deps
	cmake --preset default
	cmake --build --preset default
	QUILMA_CRASH_POINTS=100 build/default/tests/crash/crash_test
	QUILMA_STRESS_SECONDS=600 QUILMA_STRESS_FILES=5000 build/default/tests/stress/storage_stress_test

bench: deps
	cmake --preset default
	cmake --build --preset default
	bench/run
	PYTHONPATH=build/default/python /usr/bin/python3 bench/python_bench.py
	bench/index_bench.py

# The index benchmark alone: a generated 20 000-file tree through quilma-db index.
bench-index: deps
	cmake --preset default
	cmake --build --preset default --target quilma-db
	bench/index_bench.py

lint: deps
	cmake --preset default
	git ls-files 'src/*.cpp' 'tests/*.cpp' 'bench/*.cpp' | xargs clang-tidy -p build/default --quiet
	git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build
