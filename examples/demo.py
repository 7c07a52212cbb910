"""A bad day: a scene for every way in which a call can end, others for policies; numbers that add up.

The same as ``python -m tarvomeldric demo``; the scenes are in ``tarvomeldric/_cli/scenes.py``.
"""

import sys

from tarvomeldric._cli import main

if __name__ == "__main__":
    sys.exit(main(["demo"]))
