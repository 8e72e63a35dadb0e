import qbcantp

def test_module_imports():
    assert qbcantp.MAX_PAYLOAD == 4095
