option Bytes "René \u0001\u00ff"
# comment

option A [option Bytes][option Bytes]
