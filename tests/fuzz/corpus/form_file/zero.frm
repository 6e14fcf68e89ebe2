begin form 0 20
end
