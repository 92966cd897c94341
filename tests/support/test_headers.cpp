// Nothing but the headers that all tests share precompiled.
