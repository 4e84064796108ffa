"""The other side of velmd: an access point, phones, a cloud and a local client.

Everything here is written against the outside interfaces alone, on cbor2, cryptography and
jwcrypto, so that a mistake in the daemon is not repeated by the program that checks it.
"""
