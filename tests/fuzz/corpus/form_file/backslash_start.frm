BEGIN FORM 10 20
hide
txedit 1 1 5 5 \

   
later  
END
