"""Healing for programs that call providers through another library.

`transport` and `async_transport` go below an unchanged client, in the place of its network:

    from tarvomeldric.clients import Route, transport

    routes = [Route("fast", {"openai": "gpt-4o-mini", "groq": "llama-3.3-70b"})]
    client = openai.OpenAI(api_key="-", http_client=httpx.Client(transport=transport(engine, routes)))

What the client sends goes out to whom the route names, as it is but for the model's name, and what
the provider answers comes back as it is. Whatever goes wrong meanwhile is healed as in `call`.
"""

from __future__ import annotations

from tarvomeldric.clients.routes import Route
from tarvomeldric.clients.transports import async_transport, transport

__all__ = ["Route", "async_transport", "transport"]
