"""The errors that a call can end with."""

from tarvomeldric import APIError, ContractViolationError, SemanticBoundaryViolationError

FAILURES = (APIError, ContractViolationError, SemanticBoundaryViolationError, RuntimeError)
