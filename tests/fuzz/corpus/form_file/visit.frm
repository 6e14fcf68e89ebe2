#VMRFORM
Begin Form, 300, 200  Visit
  TEXT, 1, 2, 30, 16  Name:
  EDIT, 40, 2, 100, 20  Ann
  TXEDIT, 1, 30, 290, 100  first   \
  second  
 End
