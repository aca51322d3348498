# Friendly front for the CMake presets. Every target installs what is missing first.
.PHONY: all deps test check asan tsan bench lint format clean

all: test

deps:
	@scripts/install-deps

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

bench: deps
	cmake --preset default
	cmake --build --preset default
	bench/run

lint: deps
	cmake --preset default
	git ls-files 'src/*.cpp' 'tests/*.cpp' 'bench/*.cpp' | xargs clang-tidy -p build/default --quiet
	git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build
