"""`python -m velm_harness.storm SEED SECONDS`"""

import sys

from .run import main

sys.exit(main())
