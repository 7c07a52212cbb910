"""TarvoMeldric from a shell: ``python -m tarvomeldric``."""

import sys

from tarvomeldric._cli import main

if __name__ == "__main__":
    sys.exit(main())
