# One verb per act; each prepares what it needs and is quick when there is nothing to do.
#
#   make demo     prompts go through real HTTP to simulated providers
#   make test     C++ tests under the sanitizers, then the Python tests
#   make sanitize Python tests on an extension module built with the sanitizers
#   make bench    measures and prints a table
#   make bad-day  the engine and what one would write instead of using it, on one simulated bad day; rounds=
#   make judge    the openai client's own tests, with the engine below that client and behind the gateway
#   make fuzz     feeds random input to what reads text from outside, for seconds=60 each
#   make soak     calls under every fault for three minutes, then leaks and exits; seconds=, seed=, leaks=, exits=, interrupts=
#   make mutate   breaks the core on purpose and looks whether the C++ tests notice, for sample=60 ways
#   make lint     format, static analysis, types
#   make format   rewrites the sources in the project's format
#   make build    compiles and installs into .venv
#   make wheels   fills dist/ with what users install: the source distribution, and a wheel for each Python here
#   make clean    removes everything that the other verbs made

SHELL := /bin/bash
export CMAKE_BUILD_PARALLEL_LEVEL ?= $(shell nproc)
export SKBUILD_CMAKE_DEFINE := TARVOMELDRIC_WERROR=ON

venv := .venv
interpreter := $$(tools/find_python.sh)
python := $(venv)/bin/python

# Folders are in the list too: their time changes when a file comes or goes.
sources := CMakeLists.txt pyproject.toml LICENSE $(wildcard README.md) \
           $(shell find cmake licenses src python -not -name __pycache__)

.PHONY: demo test sanitize bench bad-day judge fuzz soak mutate lint format build wheels clean packages

demo: build
	@$(python) examples/demo.py

test: $(venv)/ready
	@$(python) tools/test.py

sanitize: $(venv)/ready
	@$(python) tools/sanitize.py

bench: build
	@$(python) bench/run.py

bad-day: rounds ?= 1
bad-day: build $(venv)/bad-day
	@$(python) bench/bad_day.py --rounds $(rounds)

judge: build
	@$(python) tools/judge.py

fuzz: seconds ?= 60
fuzz: build
	@$(python) tools/fuzz.py --seconds $(seconds)

soak: build
	@$(python) soak/run.py $(foreach name,seconds seed leaks exits interrupts,$(if $($(name)),--$(name)=$($(name))))

mutate: sample ?= 60
mutate: $(venv)/ready
	@$(python) tools/mutate.py --sample $(sample)

lint: build
	@tools/lint.sh

format: $(venv)/ready
	clang-format -i $$(find src tests bench fuzz -name '*.h' -o -name '*.cpp')
	$(venv)/bin/ruff check --quiet --fix-only .
	$(venv)/bin/ruff format .

build: $(venv)/installed

wheels: $(venv)/ready
	@tools/wheels.sh

clean:
	rm -rf build dist .venv .venv-* .mypy_cache .ruff_cache .pytest_cache

$(venv)/installed: $(sources) $(venv)/ready
	@echo "$(venv): compiling and installing"
	@$(venv)/bin/pip install --quiet --no-build-isolation --no-deps --force-reinstall .
	@touch $@

$(venv)/ready: pyproject.toml tools/venv.sh | packages
	@tools/venv.sh $(venv) "$(interpreter)"

# What the bad day is compared with; nothing else needs it.
$(venv)/bad-day: pyproject.toml $(venv)/ready
	@$(venv)/bin/pip install --quiet --group bad-day
	@touch $@

packages:
	@tools/packages.sh
