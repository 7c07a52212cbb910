"""Share one engine between threads."""

import threading
from collections import Counter
from concurrent.futures import ThreadPoolExecutor

from tarvomeldric import ProviderConfig, SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator, Reply, rehearsal

QUESTIONS = [f"What is {number} times {number}?" for number in range(1, 25)]


def main() -> None:
    with rehearsal(), ProviderSimulator(default=Reply(delay=0.05), process=True) as simulated:
        provider = ProviderConfig("deepseek", simulated.base_url, "any-key")
        with SelfHealingEngine({"deepseek": provider}) as engine:
            threads: Counter[str] = Counter()

            def ask(question: str) -> str:
                threads[threading.current_thread().name] += 1
                return engine.call_sync(question).text

            with ThreadPoolExecutor(max_workers=8, thread_name_prefix="worker") as pool:
                answers = list(pool.map(ask, QUESTIONS))

            print(f"{len(answers)} answers, the last one: {answers[-1]}")
            for name, calls in sorted(threads.items()):
                print(f"  {name} made {calls} calls")
            print("counted by the engine:", engine.get_stats()["call_count"])
            print("seen by the provider: ", simulated.request_count)


if __name__ == "__main__":
    main()
