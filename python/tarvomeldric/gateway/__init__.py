"""An OpenAI-compatible server before the providers: the calls of its clients are healed.

`tarvomeldric gateway --config FILE` runs it; `docs/gateway.md` tells the rest. Nothing in here is
loaded for anything else, since it stands on packages that only the extra `gateway` installs.
"""
