"""What tests the daemon from outside beyond its daily life: storms, the soak, faults, strangers.

It uses the other side of the wire (`velm_sim`), which knows nothing of it.
"""
