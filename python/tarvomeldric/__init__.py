"""Calls to hosted model providers that heal themselves.

from tarvomeldric import SelfHealingEngine

engine = SelfHealingEngine()          # finds providers by the API keys in the environment
print(engine.call_sync("Hello"))      # or: await engine.call("Hello")
"""

from typing import TYPE_CHECKING, Any

from tarvomeldric._engine import (
    AllProvidersFailed,
    APIError,
    Attempt,
    AttemptEvent,
    BreakerEvent,
    Bulkhead,
    CallPolicy,
    CallRefused,
    CallResult,
    CircuitBreaker,
    CircuitState,
    Contract,
    ContractCheck,
    ContractResult,
    ContractViolationError,
    DeadlineExceeded,
    Diagnoser,
    Diagnosis,
    EndEvent,
    EngineView,
    FaultCategory,
    FaultEvent,
    FlywheelLearner,
    HealEvent,
    LearnedRule,
    MapeKPhase,
    MapeKTrace,
    MetricsCollector,
    NoProviderAvailable,
    Observation,
    ProviderConfig,
    ProvidersBusy,
    RateLimiter,
    RecoveryAction,
    RefusalEvent,
    RetryBudget,
    SelfHealingEngine,
    SemanticBoundaryViolationError,
    SemanticClassification,
    SemanticDomain,
    SemanticTopology,
    SleepEvent,
    StreamInterrupted,
    __version__,
    run,
    serve_dashboard,
)
from tarvomeldric._streams import Stream, SyncStream

if TYPE_CHECKING:
    from tarvomeldric._fleet_limits import FleetRateLimiter

__all__ = [
    "APIError",
    "AllProvidersFailed",
    "Attempt",
    "AttemptEvent",
    "BreakerEvent",
    "Bulkhead",
    "CallPolicy",
    "CallRefused",
    "CallResult",
    "CircuitBreaker",
    "CircuitState",
    "Contract",
    "ContractCheck",
    "ContractResult",
    "ContractViolationError",
    "DeadlineExceeded",
    "Diagnoser",
    "Diagnosis",
    "EndEvent",
    "EngineView",
    "FaultCategory",
    "FaultEvent",
    "FleetRateLimiter",
    "FlywheelLearner",
    "HealEvent",
    "LearnedRule",
    "MapeKPhase",
    "MapeKTrace",
    "MetricsCollector",
    "NoProviderAvailable",
    "Observation",
    "ProviderConfig",
    "ProvidersBusy",
    "RateLimiter",
    "RecoveryAction",
    "RefusalEvent",
    "RetryBudget",
    "SelfHealingEngine",
    "SemanticBoundaryViolationError",
    "SemanticClassification",
    "SemanticDomain",
    "SemanticTopology",
    "SleepEvent",
    "Stream",
    "StreamInterrupted",
    "SyncStream",
    "__version__",
    "run",
    "serve_dashboard",
]


if not TYPE_CHECKING:

    def __getattr__(name: str) -> Any:
        """What few programs use and takes as long to load as all the rest."""
        if name != "FleetRateLimiter":
            raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
        from tarvomeldric._fleet_limits import FleetRateLimiter

        return FleetRateLimiter

    def __dir__() -> list[str]:
        return sorted({*globals(), "FleetRateLimiter"})
