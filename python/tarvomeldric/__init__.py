"""Calls to hosted model providers that heal themselves.

from tarvomeldric import SelfHealingEngine

engine = SelfHealingEngine()          # finds providers by the API keys in the environment
print(engine.call_sync("Hello"))      # or: await engine.call("Hello")
"""

from tarvomeldric._engine import (
    APIError,
    Bulkhead,
    CallResult,
    CircuitBreaker,
    CircuitState,
    Contract,
    ContractCheck,
    ContractResult,
    ContractViolationError,
    Diagnoser,
    Diagnosis,
    FaultCategory,
    FlywheelLearner,
    LearnedRule,
    MapeKPhase,
    MapeKTrace,
    MetricsCollector,
    ProviderConfig,
    RateLimiter,
    RecoveryAction,
    SelfHealingEngine,
    SemanticBoundaryViolationError,
    SemanticClassification,
    SemanticDomain,
    SemanticTopology,
    __version__,
    run,
    serve_dashboard,
)

__all__ = [
    "APIError",
    "Bulkhead",
    "CallResult",
    "CircuitBreaker",
    "CircuitState",
    "Contract",
    "ContractCheck",
    "ContractResult",
    "ContractViolationError",
    "Diagnoser",
    "Diagnosis",
    "FaultCategory",
    "FlywheelLearner",
    "LearnedRule",
    "MapeKPhase",
    "MapeKTrace",
    "MetricsCollector",
    "ProviderConfig",
    "RateLimiter",
    "RecoveryAction",
    "SelfHealingEngine",
    "SemanticBoundaryViolationError",
    "SemanticClassification",
    "SemanticDomain",
    "SemanticTopology",
    "__version__",
    "run",
    "serve_dashboard",
]
